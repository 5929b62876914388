#include "layers/functional/prepared_linear.h"

#include "hardware/cpu/product/cpu_product_fixed.h"
#include "prepared_ends.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik::nn {

namespace {

constexpr const char* name = "PreparedLinear";

void check_present(const Where& at, const Tensor* t, const char* what) {
    if (t == nullptr) {
        fail(at, name, " needs ", what, ".");
    }
    check_operands(at, t);
    if (!t->isFloat() && !t->isComplexType()) {
        fail(ErrorKind::dtype, at, "Not valid dtype for this function.");
    }
    if (!t->isCPU()) {
        refuse_gpu();
    }
}

}  // namespace

struct PreparedLinear::Parts {
    Parts(const Tensor* weight, std::unique_ptr<Tensor> own_bias)
        : factor(weight->Dtype(), weight->getRawData(), true, weight->Shape()[1], weight->Shape()[0]),
          bias(std::move(own_bias)) {}
    device::cpu::FixedFactor factor;
    std::unique_ptr<Tensor> bias;
};

PreparedLinear::PreparedLinear(Tensor* weight, Tensor* bias) {
    const Where at = where("ornik::nn::PreparedLinear::PreparedLinear");
    check_present(at, weight, "a weight");
    if (weight->ndim() != 2) {
        fail(at, name, " needs a weight [out, in], however it is ", weight->Shape());
    }
    if (bias != nullptr) {
        check_present(at, bias, "a bias");
        check_alike(at, name, bias, weight);
        if (bias->Shape() != Dims{weight->Shape()[0]}) {
            fail(at, "The bias of ", name, " with ", weight->Shape()[0], " outputs has the shape ", bias->Shape());
        }
    }
    const Borrowed rows = Borrowed::contiguous(weight);
    parts_ = std::make_unique<const Parts>(
        rows.get(), bias == nullptr ? nullptr : std::unique_ptr<Tensor>(Borrowed::contiguous(bias)->clone()));
}

PreparedLinear::~PreparedLinear() = default;
PreparedLinear::PreparedLinear(PreparedLinear&& other) noexcept = default;
PreparedLinear& PreparedLinear::operator=(PreparedLinear&& other) noexcept = default;

std::unique_ptr<Tensor> PreparedLinear::operator()(Tensor* input, LinearEnd end, Tensor* residual) const {
    const Where at = where("ornik::nn::PreparedLinear::operator()");
    check_present(at, input, "an input");
    const device::cpu::FixedFactor& factor = parts_->factor;
    if (input->Dtype() != factor.dtype()) {
        fail(ErrorKind::dtype, at, "Not same data type");
    }
    if (input->ndim() < 1 || input->Shape().back() != factor.depth()) {
        fail(at, name, " needs an input [..., ", factor.depth(), "], however it is ", input->Shape());
    }
    Dims shape = input->Shape();
    shape.back() = factor.cols();
    check_ends(at, name, input, end, residual, shape);
    const Borrowed x = Borrowed::contiguous(input);
    const Borrowed added = Borrowed::contiguous(residual);
    std::unique_ptr<Tensor> output = make_output(shape, input);
    if (output->Size() == 0) {
        return output;
    }
    device::cpu::ProductEnds ends;
    ends.bias = parts_->bias ? parts_->bias->getRawData() : nullptr;
    ends.residual = residual == nullptr ? nullptr : added->getRawData();
    ends.residual_row = factor.cols();
    if (end != LinearEnd::none) {
        ends.row = device::cpu::row_end(factor.dtype(), row_end_of(end));
    }
    factor.multiply(x->getRawData(), output->Size() / factor.cols(), false, output->getRawData(), &ends);
    return output;
}

std::int64_t PreparedLinear::bytes() const {
    const std::int64_t item = dtype_item_size(parts_->factor.dtype());
    return parts_->factor.bytes() + (parts_->bias ? parts_->bias->Size() * item : 0);
}

}  // namespace ornik::nn
