#include "layers/functional/dropout.h"

#include "hardware/cpu/nn/cpu_dropout.h"
#include "hardware/cpu/random/cpu_random.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

void check(const Where& at, const Tensor* x, double p) {
    if (x == nullptr) {
        fail(at, "dropout needs a tensor.");
    }
    check_operands(at, x);
    if (!x->isFloat() && !x->isComplexType()) {
        fail(at, "dropout only support float or complex as dtype.");
    }
    if (!x->isCPU()) {
        refuse_gpu();
    }
    if (!(p >= 0 && p <= 1)) {
        fail(at, "Probability should be in the range of [0, 1].");
    }
}

// `kept` stands for the leading axes of x.
std::unique_ptr<Tensor> masked(const Tensor* x, const Tensor* kept, double p) {
    std::unique_ptr<Tensor> output = make_tensor(x->Shape(), x->Dtype());
    if (x->Size() == 0) {
        return output;
    }
    const double scale = p < 1 ? 1 / (1 - p) : 0.0;
    if (kept->ndim() == x->ndim()) {
        device::cpu::keep_scaled(x, kept, scale, output.get());
        return output;
    }
    Dims strides = kept->Strides();
    strides.resize(x->Shape().size(), 0);
    const std::unique_ptr<Tensor> repeated(
        share_storage_tensor(kept->getStorage(), x->Shape(), strides, dtype::boolean, kept->StorageOffset()));
    device::cpu::keep_scaled(x, repeated.get(), scale, output.get());
    return output;
}

Dropped drop(const Tensor* x, const Dims& kept_shape, double p) {
    Dropped result;
    result.kept = make_tensor(kept_shape, dtype::boolean);
    generator::Lease source;  // Until all is done: a call that fails gives its numbers back.
    if (result.kept->Size() > 0) {
        device::cpu::fill_kept(source, result.kept.get(), x->Dtype(), 1 - p);
    }
    result.output = masked(x, result.kept.get(), p);
    return result;
}

}  // namespace

Dropped dropout(Tensor* x, double p) {
    check(where("ornik::nn::dropout"), x, p);
    return drop(x, x->Shape(), p);
}

Dropped dropout_channels(Tensor* x, double p) {
    const Where at = where("ornik::nn::dropout_channels");
    check(at, x, p);
    const Dims& shape = x->Shape();
    if (shape.size() < 2) {
        fail(at, "dropout of channels needs an input [N, C, ...], however it is ", shape);
    }
    return drop(x, {shape[0], shape[1]}, p);
}

std::unique_ptr<Tensor> dropout_grad(Tensor* output_gradient, Tensor* kept, double p) {
    const Where at = where("ornik::nn::dropout_grad");
    check(at, output_gradient, p);
    const Dims& shape = output_gradient->Shape();
    check_optional(at, kept);
    if (kept == nullptr || !kept->isBool() || kept->Device() != output_gradient->Device() ||
        kept->Shape().size() > shape.size() || !std::equal(kept->Shape().begin(), kept->Shape().end(), shape.begin())) {
        fail(at, "dropout needs a bool mask of the leading axes of ", shape);
    }
    return masked(output_gradient, kept, p);
}

}  // namespace ornik::nn
