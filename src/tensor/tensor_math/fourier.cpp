// fourier.cpp: front ends of the Fourier transforms.
#include "tensor/tensor_math/fourier.h"

#include "hardware/cpu/fourier/cpu_fourier.h"
#include "results.h"

namespace ornik {

namespace {

// Lengths beyond this have no memory, and their squares of positions no room in 64 bits.
constexpr std::int64_t longest = std::int64_t{1} << 40;

struct Transform {
    int axis;
    TensorResult result;
    bool is_empty;  // nothing to take: the result is zeros
};

Transform prepare(const Where& at, const char* name, const Tensor* x, int axis, std::int64_t n, std::int64_t extent,
                  bool takes_complex, std::int64_t result_dtype) {
    check_cpu(at, x);
    if (takes_complex ? !x->isComplexType() : !x->isFloat()) {
        fail(ErrorKind::dtype, at, name, "(): takes ", takes_complex ? "complex" : "real floating", " tensors, not ",
             dtype_name(x->Dtype()), ".");
    }
    const int rank = static_cast<int>(x->Shape().size());
    if (axis < -rank || axis >= rank) {
        fail(ErrorKind::index, at, name, "(): a tensor of ", rank, " axes has no axis ", axis, ".");
    }
    if (n < 1 || n > longest || extent < 0) {
        fail(at, name, "(): there is no transform of length ", n, " with ", extent, " results.");
    }
    Dims shape = x->Shape();
    shape[static_cast<std::size_t>(axis < 0 ? axis + rank : axis)] = extent;
    Transform transform{axis < 0 ? axis + rank : axis, new_result(shape, result_dtype), x->Size() == 0};
    if (transform.is_empty && transform.result->Size() > 0) {
        device::cpu::fill(transform.result.get(), 0.0F);
    }
    transform.is_empty = transform.is_empty || transform.result->Size() == 0;
    return transform;
}

}  // namespace

Tensor* fourier(const Tensor* x, int axis, std::int64_t n, std::int64_t extent, bool inverse, double scale) {
    const Where at = where("ornik::fourier");
    check_given(at, x);
    Transform transform = prepare(at, "fourier", x, axis, n, extent, true, x->Dtype());
    if (!transform.is_empty) {
        device::cpu::cpu_fourier(x, transform.result.get(), transform.axis, n, inverse, scale);
    }
    return transform.result.release();
}

Tensor* fourier_of_real(const Tensor* x, int axis, std::int64_t n, std::int64_t extent, double scale) {
    const Where at = where("ornik::fourier_of_real");
    check_given(at, x);
    const std::int64_t dtype = x->Dtype() == dtype::float32 ? dtype::complex64 : dtype::complex128;
    Transform transform = prepare(at, "fourier_of_real", x, axis, n, extent, false, dtype);
    if (!transform.is_empty) {
        device::cpu::cpu_fourier_of_real(x, transform.result.get(), transform.axis, n, scale);
    }
    return transform.result.release();
}

Tensor* fourier_to_real(const Tensor* x, int axis, std::int64_t n, std::int64_t extent, double scale) {
    const Where at = where("ornik::fourier_to_real");
    check_given(at, x);
    Transform transform = prepare(at, "fourier_to_real", x, axis, n, extent, true, part_dtype(x->Dtype()));
    if (!transform.is_empty) {
        device::cpu::cpu_fourier_to_real(x, transform.result.get(), transform.axis, n, scale);
    }
    return transform.result.release();
}

}  // namespace ornik
