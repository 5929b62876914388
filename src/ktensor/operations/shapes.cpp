// shapes.cpp: conversion, broadcasting and its reverse.
#include "ktensor/shapes.h"

#include "ktensor/record.h"
#include "tensor/geometry.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_shape.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

// What an operand's gradient has to be is known to its edge: shape and dtype are brought back there.
constexpr auto hand_on = [](Backward& pass) { pass.give(0, pass.take_grad()); };

KTensor astype(const KTensor& x, std::int64_t dtype) {
    const Recorder record(Op::astype, {&x});
    if (!is_valid_dtype(dtype)) {
        fail(ErrorKind::dtype, where("ornik::astype"), "astype(): there is no dtype ", dtype, ".");
    }
    if (x.dtype() == dtype) {
        return x;
    }
    std::unique_ptr<Tensor> converted = autograd::empty_tensor(x.shape(), dtype);
    if (x.size() != 0) {
        converted->copy_from_(x.tensor());
    }
    KTensor y = make_ktensor(std::move(converted));
    if (record.active()) {
        record.finish(y, {}, hand_on);
    }
    return y;
}

KTensor broadcast_to(const KTensor& x, const Dims& shape) {
    const Recorder record(Op::broadcast_to, {&x});
    KTensor y = make_ktensor(Tensor::broadcast_to(x.tensor(), shape));
    if (record.active()) {
        record.finish(y, {}, hand_on);
    }
    return y;
}

KTensor sum_to_shape(const KTensor& x, const Dims& shape) {
    const Recorder record(Op::sum_to_shape, {&x});
    const Dims& from = x.shape();
    if (from == shape) {
        return x;
    }
    const std::size_t lead = from.size() - std::min(from.size(), shape.size());
    std::vector<int> axes;
    for (std::size_t i = 0; i < from.size(); ++i) {
        const bool added = i < lead;
        if (added || (shape[i - lead] == 1 && from[i] != 1)) {
            axes.push_back(static_cast<int>(i));
        } else if (shape[i - lead] != from[i]) {
            fail(where("ornik::sum_to_shape"), "sum_to_shape(): ", describe(shape, x.dtype()),
                 " does not broadcast to ", describe(x), ".");
        }
    }
    if (from.size() < shape.size()) {
        fail(where("ornik::sum_to_shape"), "sum_to_shape(): ", describe(shape, x.dtype()), " does not broadcast to ",
             describe(x), ".");
    }
    const std::unique_ptr<Tensor> total(ornik::sum(x.tensor(), axes, true));
    KTensor y = make_ktensor(share_storage_tensor(total->getStorage(), shape, shape2stride(shape), total->Dtype(), 0));
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) { pass.give(0, broadcast_to(pass.grad(), pass.operand_shape(0))); });
    }
    return y;
}

}  // namespace ornik
