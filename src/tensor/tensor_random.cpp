// tensor_random.cpp: random tensors, fills and draws from the default generator.
#include <cmath>
#include <limits>

#include "hardware/cpu/random/cpu_random.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"

namespace ornik {

namespace {

// Everything that creates and fills tensors reports under one file name.
constexpr const char* family = "src/tensor/tensor_create.cpp";

using generator::Lease;

bool is_float_or_complex(std::int64_t dtype) {
    return is_dtype_class(dtype, DtypeClass::floating) || is_dtype_class(dtype, DtypeClass::complex);
}

bool is_single(std::int64_t dtype) { return dtype == dtype::float32 || dtype == dtype::complex64; }

// A finite number of the precision that the dtype's parts have.
bool fits(double value, std::int64_t dtype) {
    return std::isfinite(value) && (!is_single(dtype) || std::fabs(value) <= std::numeric_limits<float>::max());
}

void check_normal(const Where& at, double mean, double std, std::int64_t dtype) {
    if (!fits(mean, dtype) || !fits(std, dtype) || std < 0) {
        fail(at, "mean and std should be finite, std >= 0.");
    }
}

void check_range(const Where& at, double low, double high, std::int64_t dtype) {
    if (!(low <= high) || !fits(low, dtype) || !fits(high, dtype) || !fits(high - low, dtype)) {
        fail(at, "low should be <= high, both and their distance finite.");
    }
}

void check_probability(const Where& at, double p) {
    if (!(p >= 0 && p <= 1)) {
        fail(at, "Probability should be in the range of [0, 1].");
    }
}

// What every in-place fill needs of its tensor, once the dtype is right.
void check_fillable(const Where& at, const Tensor* self) {
    if (!self->isCPU()) {
        refuse_gpu();
    }
    check_not_expanded(at, self);
    announce_write(at, self);
}

// Calls draw(source, contiguous tensor); elements are drawn in row-major order under any strides.
template <typename Draw>
void fill_in_place(Tensor* self, const Draw& draw) {
    if (self->Size() == 0) {
        return;
    }
    std::unique_ptr<Tensor> aside;
    if (!self->is_contiguous()) {
        aside.reset(Tensor::empty_like(self));
    }
    Tensor* const out = aside ? aside.get() : self;
    Lease source;
    draw(source, out);
    if (aside) {
        copy_tensor(aside.get(), self);
    }
}

// Each part's deviation: a complex number's variance is shared by its two parts.
double part_deviation(double std, std::int64_t dtype) {
    return is_dtype_class(dtype, DtypeClass::complex) ? std * 0.70710678118654752440 : std;
}

void fill_uniform(const Where& at, Tensor* self, double low, double high) {
    if (!is_float_or_complex(self->Dtype())) {
        fail(ErrorKind::dtype, at, "cpu_uniform_impl not support dtype\n");
    }
    check_range(at, low, high, self->Dtype());
    check_fillable(at, self);
    fill_in_place(self, [=](Lease& source, Tensor* out) { device::cpu::fill_uniform(source, out, low, high); });
}

// Calls draw(source, out) for a new tensor.
template <typename Draw>
Tensor* new_drawn(const Dims& shape, std::int64_t device, std::int64_t dtype, const Draw& draw) {
    std::unique_ptr<Tensor> out(Tensor::empty(shape, device, dtype));
    Lease source;
    draw(source, out.get());
    return out.release();
}

// Whole numbers that a dtype holds exactly.
struct WholeRange {
    std::int64_t lowest, highest;
};

WholeRange whole_range(std::int64_t dtype) {
    if (is_dtype_class(dtype, DtypeClass::floating)) {
        const std::int64_t most = std::int64_t{1} << (is_single(dtype) ? 24 : 53);
        return {-most, most};
    }
    if (dtype == dtype::uint8) {
        return {0, 255};
    }
    const std::int64_t highest = std::numeric_limits<std::int64_t>::max() >> (64 - 8 * dtype_item_size(dtype));
    return {-highest - 1, highest};
}

}  // namespace

Tensor* Tensor::randn(const Dims& shape, double mean, double std, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::randn", family);
    if (!is_float_or_complex(dtype)) {
        fail(ErrorKind::dtype, at, "randn only support float or complex as dtype.");
    }
    check_normal(at, mean, std, dtype);
    return new_drawn(shape, device, dtype, [=](Lease& source, Tensor* out) {
        device::cpu::fill_normal(source, out, mean, part_deviation(std, dtype), true);
    });
}

Tensor* Tensor::randu(const Dims& shape, double low, double high, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::randu", family);
    if (!is_float_or_complex(dtype)) {
        fail(ErrorKind::dtype, at, "randu only support float or complex as dtype.");
    }
    check_range(at, low, high, dtype);
    return new_drawn(shape, device, dtype,
                     [=](Lease& source, Tensor* out) { device::cpu::fill_uniform(source, out, low, high); });
}

Tensor* Tensor::randint(const Dims& shape, std::int64_t low, std::int64_t high, std::int64_t device,
                        std::int64_t dtype) {
    const Where at = where("ornik::Tensor::randint", family);
    if (!is_dtype_class(dtype, DtypeClass::integral) && !is_dtype_class(dtype, DtypeClass::floating)) {
        fail(ErrorKind::dtype, at, "randint only support integer or float as dtype.");
    }
    if (low >= high) {
        fail(at, "low should be < high, however low = ", low, ", high = ", high);
    }
    const WholeRange range = whole_range(dtype);
    if (low < range.lowest || high - 1 > range.highest) {
        fail(at, "Numbers from ", low, " to ", high - 1, " do not fit in ", dtype_name(dtype));
    }
    return new_drawn(shape, device, dtype,
                     [=](Lease& source, Tensor* out) { device::cpu::fill_integers(source, out, low, high); });
}

Tensor* Tensor::permutation(std::int64_t n, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::permutation", family);
    if (!is_dtype_class(dtype, DtypeClass::integral)) {
        fail(ErrorKind::dtype, at, "permutation only support integer as dtype.");
    }
    if (n < 1) {
        fail(at, "n should be >= 1, however it equals ", n);
    }
    if (n - 1 > whole_range(dtype).highest) {
        fail(at, "Numbers from 0 to ", n - 1, " do not fit in ", dtype_name(dtype));
    }
    return new_drawn({n}, device, dtype,
                     [](Lease& source, Tensor* out) { device::cpu::fill_permutation(source, out); });
}

Tensor* Tensor::dropout_mask(const Dims& shape, double p, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::dropout_mask", family);
    if (!is_float_or_complex(dtype)) {
        fail(ErrorKind::dtype, at, "dropout_mask only support float or complex as dtype.");
    }
    check_probability(at, p);
    return new_drawn(shape, device, dtype, [=](Lease& source, Tensor* out) {
        device::cpu::fill_binary(source, out, 1 - p, p < 1 ? 1 / (1 - p) : 0.0);
    });
}

Tensor* Tensor::bernoulli(Tensor* probs) {
    const Where at = where("ornik::Tensor::bernoulli", family);
    check_operands(at, probs);
    if (!probs->isFloat()) {
        fail(ErrorKind::dtype, at, "bernoulli's probs only support float as dtype.");
    }
    if (!probs->isCPU()) {
        refuse_gpu();
    }
    const Borrowed dense = Borrowed::contiguous(probs);
    if (!device::cpu::all_between(dense.get(), 0, 1, false)) {
        fail(at, "Probability should be in the range of [0, 1].");
    }
    return new_drawn(probs->shape_, probs->device_, probs->dtype_,
                     [&](Lease& source, Tensor* out) { device::cpu::bernoulli(source, dense.get(), out); });
}

Tensor* Tensor::binomial(Tensor* total_count, Tensor* probs) {
    const Where at = where("ornik::Tensor::binomial", family);
    check_operands(at, total_count, probs);
    if (probs->isGPU()) {
        fail(at, "binomial not compiled for gpu.");
    }
    if (!probs->isFloat()) {
        fail(ErrorKind::dtype, at, "binomial's probs only support float as dtype.");
    }
    if (total_count->device_ != probs->device_) {
        fail(ErrorKind::device, at, "total_count, probs not same device. convert total_count to probs device first.");
    }
    if (total_count->dtype_ != probs->dtype_) {
        fail(ErrorKind::dtype, at, "total_count, probs not same dtype. convert total_count to probs dtype first.");
    }
    if (total_count->shape_ != probs->shape_) {
        fail(at, "total_count, probs not same shape. convert total_count to probs shape first.");
    }
    const Borrowed counts = Borrowed::contiguous(total_count);
    const Borrowed dense = Borrowed::contiguous(probs);
    if (!device::cpu::all_between(counts.get(), 0, static_cast<double>(whole_range(probs->dtype_).highest), true)) {
        fail(at, "total_count should be whole numbers >= 0 that their dtype holds exactly.");
    }
    if (!device::cpu::all_between(dense.get(), 0, 1, false)) {
        fail(at, "Probability should be in the range of [0, 1].");
    }
    return new_drawn(probs->shape_, probs->device_, probs->dtype_, [&](Lease& source, Tensor* out) {
        device::cpu::binomial(source, counts.get(), dense.get(), out);
    });
}

Tensor* Tensor::multinomial(Tensor* probs, std::int64_t num_samples, bool replacement) {
    const Where at = where("ornik::Tensor::multinomial", family);
    check_operands(at, probs);
    if (probs->ndim_ != 1 && probs->ndim_ != 2) {
        fail(at, "Multinomial input should be 1 dim or 2 dim.");
    }
    if (!probs->isFloat()) {
        fail(ErrorKind::dtype, at, "multinomial() only supports floating-point dtypes for input");
    }
    if (!probs->isCPU()) {
        refuse_gpu();
    }
    if (num_samples < 1) {
        fail(at, "num_samples should be >= 1, however it equals ", num_samples);
    }
    if (probs->size_ == 0) {
        fail(at, "Multinomial input should have categories, its shape is ", probs->shape_);
    }
    const std::int64_t rows = probs->ndim_ == 2 ? probs->shape_[0] : 1;
    const Borrowed weights = Borrowed::contiguous(probs);
    const device::cpu::WeightSummary summary = device::cpu::summarize_weights(weights.get(), rows);
    if (!summary.valid) {
        fail(at, "Weights of multinomial() should be finite and >= 0.");
    }
    if (!summary.sums_positive) {
        fail(at, "Weights of multinomial() should have a finite sum > 0 in every row.");
    }
    if (!replacement && num_samples > summary.fewest_positive) {
        fail(at, "multinomial() can not draw ", num_samples, " samples without replacement from ",
             summary.fewest_positive, " categories of weight > 0.");
    }
    const Dims shape = probs->ndim_ == 2 ? Dims{rows, num_samples} : Dims{num_samples};
    return new_drawn(shape, probs->device_, dtype::int64, [&](Lease& source, Tensor* out) {
        device::cpu::multinomial(source, weights.get(), rows, replacement, out);
    });
}

void Tensor::fill_rand_normal_inplace(double mean, double std, bool use_cached) {
    const Where at = where("ornik::Tensor::fill_rand_normal_inplace", family);
    if (!is_float_or_complex(dtype_)) {
        fail(ErrorKind::dtype, at, "cpu_normal_impl not support dtype\n");
    }
    check_normal(at, mean, std, dtype_);
    check_fillable(at, this);
    fill_in_place(this, [=, deviation = part_deviation(std, dtype_)](Lease& source, Tensor* out) {
        device::cpu::fill_normal(source, out, mean, deviation, use_cached);
    });
}

void Tensor::fill_rand_uniform_inplace(double scale) {
    fill_uniform(where("ornik::Tensor::fill_rand_uniform_inplace", family), this, 0, scale);
}

void Tensor::fill_rand_signed_uniform_inplace(double scale) {
    fill_uniform(where("ornik::Tensor::fill_rand_signed_uniform_inplace", family), this, -scale, scale);
}

void Tensor::fill_rand_uniform_withbound_inplace(double low, double high) {
    fill_uniform(where("ornik::Tensor::fill_rand_uniform_withbound_inplace", family), this, low, high);
}

void Tensor::fill_rand_binary_inplace(double p) {
    const Where at = where("ornik::Tensor::fill_rand_binary_inplace", family);
    if (!is_float_or_complex(dtype_)) {
        fail(ErrorKind::dtype, at, "binary_dtype_cpu_impl only support Complex or float\n");
    }
    check_probability(at, p);
    check_fillable(at, this);
    fill_in_place(this, [=](Lease& source, Tensor* out) { device::cpu::fill_binary(source, out, p, 1); });
}

}  // namespace ornik
