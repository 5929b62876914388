// indexing.cpp: elements at computed places.
#include "ktensor/indexing.h"

#include "ktensor/record.h"
#include "tensor/tensor_math/indexing.h"

namespace ornik {

using autograd::Backward;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

KTensor gather(const KTensor& x, int axis, const KTensor& index) {
    const Recorder record(Op::gather, {&x});
    autograd::check_defined("gather", index, 1);
    KTensor y = make_ktensor(ornik::gather(x.tensor(), axis, index.tensor()));
    if (record.active()) {
        record.finish(y, {Recorder::own(index)}, [axis](Backward& pass) {
            const KTensor zeros = KTensor::zeros(pass.operand_shape(0), pass.grad().dtype());
            pass.give(0, scatter_add(zeros, axis, pass.saved(0), pass.grad()));
        });
    }
    return y;
}

KTensor scatter_add(const KTensor& x, int axis, const KTensor& index, const KTensor& source) {
    const Recorder record(Op::scatter_add, {&x, &source});
    autograd::check_defined("scatter_add", index, 2);
    KTensor y = make_ktensor(ornik::scatter_add(x.tensor(), axis, index.tensor(), source.tensor()));
    if (record.active()) {
        record.finish(y, {Recorder::own(index)}, [axis](Backward& pass) {
            if (pass.wants(1)) {
                pass.give(1, gather(pass.grad(), axis, pass.saved(0)));
            }
            pass.give(0, pass.take_grad());
        });
    }
    return y;
}

}  // namespace ornik
