// convolutions.cpp: convolutions and pooling, and their gradients.
#include "ktensor/convolutions.h"

#include <numeric>

#include "ktensor/indexing.h"
#include "ktensor/joins.h"
#include "ktensor/record.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "utils/error.h"

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

namespace {

// The largest element of each of `parts` windows of an axis.
KTensor window_maxima(const KTensor& x, int axis, std::int64_t parts) {
    const std::int64_t extent = x.size(axis);
    if (extent % parts == 0) {
        Dims apart = x.shape();
        apart[static_cast<std::size_t>(axis)] = parts;
        apart.insert(apart.begin() + axis + 1, extent / parts);
        return max(reshape(x, apart), {axis + 1});
    }
    std::vector<KTensor> maxima;
    for (std::int64_t i = 0; i < parts; ++i) {
        const std::int64_t begin = i * extent / parts;
        const std::int64_t end = ((i + 1) * extent + parts - 1) / parts;
        maxima.push_back(max(narrow(x, axis, begin, end - begin), {axis}));
    }
    return stack(maxima, axis);
}

void check_channels(const char* name, const KTensor& x, bool fits) {
    if (!fits) {
        fail(where("ornik::KTensor"), name, "(): ", autograd::describe(x), " does not hold channels of elements.");
    }
}

std::vector<int> axes_of_channels(const char* name, const KTensor& x) {
    autograd::check_defined(name, x, 0);
    check_channels(name, x, x.ndim() > 2);
    std::vector<int> axes(x.shape().size() - 2);
    std::iota(axes.begin(), axes.end(), 2);
    return axes;
}

}  // namespace

KTensor adaptive_max_pool(const KTensor& x, const std::array<std::int64_t, 2>& output) {
    autograd::check_defined("adaptive_max_pool", x, 0);
    check_channels("adaptive_max_pool", x, x.ndim() == 3 || x.ndim() == 4);
    KTensor y = x;
    for (int axis = 2; axis < x.ndim(); ++axis) {
        const std::int64_t parts = output[static_cast<std::size_t>(axis) - 2];
        if (parts < 1 || x.size(axis) < 1) {
            fail(where("ornik::adaptive_max_pool"), "adaptive_max_pool(): axis ", axis, " of ", autograd::describe(x),
                 " does not have ", parts, " windows.");
        }
        y = window_maxima(y, axis, parts);
    }
    return y;
}

KTensor global_average_pool(const KTensor& x) { return mean(x, axes_of_channels("global_average_pool", x)); }

KTensor global_max_pool(const KTensor& x) { return max(x, axes_of_channels("global_max_pool", x)); }

}  // namespace ornik
