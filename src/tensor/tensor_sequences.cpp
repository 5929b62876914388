// tensor_sequences.cpp: number sequences, unit matrices and triangles.
#include <cmath>
#include <memory>

#include "hardware/cpu/copy/cpu_core.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/tensor.h"
#include "utils/utils.h"

namespace ornik {

namespace {

// Everything that creates and fills tensors reports under one file name.
constexpr const char* family = "src/tensor/tensor_create.cpp";

void check_bounds(const Where& at, double start, double end) {
    if (std::isnan(start) || std::isnan(end)) {
        fail(at, "start and end must a legal number");
    }
    if (std::isinf(start) || std::isinf(end)) {
        fail(at, "start and end must a number within finite size");
    }
}

// An element count as a whole number. Counts that no tensor can have, NaN among them, keep a value that
// is refused later on.
std::int64_t to_count(double count) {
    constexpr double limit = 9.2e18;
    return std::isnan(count) ? 0 : static_cast<std::int64_t>(std::fmin(std::fmax(count, -limit), limit));
}

void check_count(const Where& at, std::int64_t count) {
    if (count <= 0) {
        fail(at, "size should >0 ,however size = ", count);
    }
}

void check_kind(const Where& at, std::int64_t device, std::int64_t dtype) {
    CheckDev(device);
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, at, "Not valid data type.");
    }
    if (dtype == dtype::boolean || is_dtype_class(dtype, DtypeClass::complex)) {
        fail(ErrorKind::not_implemented, at, "range() not impl for bool , complex64 or complex128.");
    }
}

// The builder behind arange, range and linspace.
std::unique_ptr<Tensor> build_sequence(const Where& at, float start, float step, std::int64_t count,
                                       std::int64_t device, std::int64_t dtype, bool close) {
    check_kind(at, device, dtype);
    std::unique_ptr<Tensor> result(Tensor::empty({count < 0 ? -count : count}, device, dtype));
    const float last = start + static_cast<float>(count - 1) * step;
    device::cpu::sequence(result.get(), start, step, close && count >= 2 ? &last : nullptr);
    return result;
}

std::unique_ptr<Tensor> build_linspace(const Where& at, float start, float end, std::int64_t num, std::int64_t device,
                                       std::int64_t dtype) {
    if (num <= 0) {
        fail(at, "num should >=0 ");
    }
    // A single value needs no step.
    const float step = num == 1 ? 0.0F : (end - start) / static_cast<float>(num - 1);
    return build_sequence(at, start, step, num, device, dtype, true);
}

std::unique_ptr<Tensor> build_triangle(const Where& at, const Tensor* t, std::int64_t k, bool lower) {
    check_operands(at, t);
    if (t->ndim() < 2) {
        fail(at, "input should be at least 2d");
    }
    std::unique_ptr<Tensor> result(Tensor::empty(t->Shape(), t->Device(), t->Dtype()));
    std::unique_ptr<Tensor> dense;
    if (!t->is_contiguous()) {
        dense.reset(t->clone());
    }
    device::cpu::triangle(dense ? dense.get() : t, result.get(), k, lower);
    return result;
}

}  // namespace

void Tensor::CheckLegalArange(double start, double end, double /*step*/) {
    check_bounds(where("ornik::Tensor::CheckLegalArange", family), start, end);
}

Tensor* Tensor::arange(double start, double end, double step, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::arange", family);
    if (step == 0) {
        fail(at, "step should be non zero");
    }
    check_bounds(at, start, end);
    const std::int64_t count = to_count(std::ceil((end - start) / step));
    check_count(at, count);
    return build_sequence(at, static_cast<float>(start), static_cast<float>(step), count, device, dtype, false)
        .release();
}

Tensor* Tensor::range(float start, float end, float step, std::int64_t device, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::range", family);
    if (step == 0) {
        fail(at, "step should be non zero");
    }
    check_bounds(at, start, end);
    const std::int64_t count = to_count(std::floor((end - start) / step) + 1.0F);
    check_count(at, count);
    return build_sequence(at, start, step, count, device, dtype, false).release();
}

Tensor* Tensor::linspace(float start, float end, std::int64_t num, std::int64_t device, std::int64_t dtype) {
    return build_linspace(where("ornik::Tensor::linspace", family), start, end, num, device, dtype).release();
}

Tensor* Tensor::logspace(float start, float end, std::int64_t num, float base, std::int64_t device,
                         std::int64_t dtype) {
    const Where at = where("ornik::Tensor::logspace", family);
    if (num <= 0) {
        fail(at, "num should >=0 ");
    }
    if (base == 0) {
        fail(at, "base should !=0");
    }
    check_kind(at, device, dtype);
    // The exponents keep their fractions whatever the result's dtype is. All memory is there before any is filled.
    const bool is_double = dtype == dtype::float64;
    std::unique_ptr<Tensor> result(Tensor::empty({num}, device, dtype));
    const std::unique_ptr<Tensor> exponents =
        build_linspace(at, start, end, num, device, is_double ? dtype::float64 : dtype::float32);
    device::cpu::power_of(base, exponents.get(), result.get());
    return result.release();
}

Tensor* Tensor::eye(std::int64_t rows, std::int64_t cols, std::int64_t offset, std::int64_t dtype) {
    const Where at = where("ornik::Tensor::eye", family);
    if (rows < 1 || cols < 1 || offset <= -rows) {
        fail(at, "Illegal of rows or offset");
    }
    if (offset >= rows) {
        fail(at, "offset must less than rows");
    }
    std::unique_ptr<Tensor> result(zeros({rows, cols}, device_cpu, dtype));
    device::cpu::unit_diagonal(result.get(), offset);
    return result.release();
}

Tensor* Tensor::tril(std::int64_t k) const {
    return build_triangle(where("ornik::Tensor::tril", family), this, k, true).release();
}

Tensor* Tensor::triu(std::int64_t k) const {
    return build_triangle(where("ornik::Tensor::triu", family), this, k, false).release();
}

}  // namespace ornik
