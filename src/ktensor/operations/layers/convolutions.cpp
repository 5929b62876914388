// convolutions.cpp: convolutions and pooling, and their gradients.
#include "ktensor/convolutions.h"

#include "ktensor/record.h"

namespace ornik {

using autograd::Backward;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

KTensor convolution(const KTensor& x, const KTensor& weight, const KTensor& bias,
                    const nn::ConvParameters& parameters) {
    const Recorder record(Op::convolution, {&x, &weight, &bias}, 2);
    KTensor y = make_ktensor(nn::convolution(x.tensor(), weight.tensor(), bias.tensor(), parameters));
    if (record.active()) {
        record.finish(y, {record.operand_if(record.wants(1), 0), record.operand_if(record.wants(0), 1)},
                      [parameters](Backward& pass) {
                          Tensor* grad = pass.grad().tensor();
                          if (pass.wants(1)) {
                              pass.give(1, make_ktensor(nn::convolution_weight_grad(
                                               grad, pass.saved_raw(0), pass.operand_shape(1), parameters)));
                          }
                          if (pass.wants(2)) {
                              pass.give(2, make_ktensor(nn::convolution_bias_grad(grad)));
                          }
                          if (pass.wants(0)) {
                              pass.give(0, make_ktensor(nn::convolution_input_grad(grad, pass.operand_shape(0),
                                                                                   pass.saved_raw(1), parameters)));
                          }
                      });
    }
    return y;
}

std::pair<KTensor, KTensor> max_pool_with_positions(const KTensor& x, const nn::PoolParameters& parameters) {
    const Recorder record(Op::max_pool, {&x});
    nn::MaxPool result = nn::max_pool(x.tensor(), parameters);
    KTensor y = make_ktensor(std::move(result.output));
    KTensor positions = make_ktensor(std::move(result.positions));
    if (record.active()) {
        record.finish(y, {Recorder::own(positions)}, [parameters](Backward& pass) {
            pass.give(0, make_ktensor(nn::max_pool_grad(pass.grad().tensor(), pass.saved_raw(0), pass.operand_shape(0),
                                                        parameters)));
        });
    }
    return {std::move(y), std::move(positions)};
}

KTensor max_pool(const KTensor& x, const nn::PoolParameters& parameters) {
    return max_pool_with_positions(x, parameters).first;
}

KTensor average_pool(const KTensor& x, const nn::PoolParameters& parameters) {
    const Recorder record(Op::average_pool, {&x});
    KTensor y = make_ktensor(nn::average_pool(x.tensor(), parameters));
    if (record.active()) {
        record.finish(y, {}, [parameters](Backward& pass) {
            pass.give(0, make_ktensor(nn::average_pool_grad(pass.grad().tensor(), pass.operand_shape(0), parameters)));
        });
    }
    return y;
}

KTensor adaptive_average_pool(const KTensor& x, const std::array<std::int64_t, 2>& output) {
    const Recorder record(Op::adaptive_average_pool, {&x});
    KTensor y = make_ktensor(nn::adaptive_average_pool(x.tensor(), output));
    if (record.active()) {
        record.finish(y, {}, [](Backward& pass) {
            pass.give(0, make_ktensor(nn::adaptive_average_pool_grad(pass.grad().tensor(), pass.operand_shape(0))));
        });
    }
    return y;
}

}  // namespace ornik
