// images.cpp: resizing, and channels exchanged for resolution.
#include "ktensor/images.h"

#include <algorithm>
#include <numeric>

#include "ktensor/record.h"
#include "ktensor/shapes.h"
#include "tensor/nn/interpolate.h"
#include "utils/error.h"

namespace ornik {

using autograd::Backward;
using autograd::describe;
using autograd::make_ktensor;
using autograd::Op;
using autograd::Recorder;

namespace {

// Between images of two sizes: resized to `target`, or, `back`, the gradient of what was resized from `target`. Each
// one is linear, and the other one is its gradient.
KTensor resized(const KTensor& x, const Dims& target, const std::string& mode, bool align_corners, bool back) {
    const Recorder record(Op::interpolate, {&x});
    KTensor y;
    if (back) {
        y = make_ktensor(interpolate_grad(x.tensor(), target, mode, align_corners));
    } else {
        y = make_ktensor(ornik::interpolate(x.tensor(), {target[2], target[3]}, mode, align_corners));
    }
    if (record.active()) {
        record.finish(y, {}, [=](Backward& pass) {
            pass.give(0, resized(pass.grad(), pass.operand_shape(0), mode, align_corners, !back));
        });
    }
    return y;
}

// x with its last three axes given new extents and, in between, an order.
KTensor rearranged(const KTensor& x, const Dims& parted, const std::vector<int>& order, const Dims& joined) {
    const Dims& shape = x.shape();
    const Dims lead(shape.begin(), shape.end() - 3);
    const auto with_lead = [&](const Dims& last) {
        Dims extents = lead;
        extents.insert(extents.end(), last.begin(), last.end());
        return extents;
    };
    std::vector<int> axes(lead.size());
    std::iota(axes.begin(), axes.end(), 0);
    for (const int axis : order) {
        axes.push_back(static_cast<int>(lead.size()) + axis);
    }
    return reshape(permute(reshape(x, with_lead(parted)), axes), with_lead(joined));
}

}  // namespace

KTensor interpolate(const KTensor& x, const Dims& size, const std::string& mode, bool align_corners) {
    autograd::check_defined("interpolate", x, 0);
    if ((x.ndim() != 3 && x.ndim() != 4) || size.size() + 2 != x.shape().size()) {
        fail(where("ornik::interpolate"), "interpolate(): ", describe(x), " can not be resized to ",
             autograd::list_text(size), ".");
    }
    if (x.ndim() == 4) {
        return resized(x, {x.size(0), x.size(1), size[0], size[1]}, mode, align_corners, false);
    }
    return squeeze(resized(unsqueeze(x, 2), {x.size(0), x.size(1), 1, size[0]}, mode, align_corners, false), {2});
}

KTensor pixel_shuffle(const KTensor& x, std::int64_t factor) {
    autograd::check_defined("pixel_shuffle", x, 0);
    if (factor < 1 || x.ndim() < 3 || x.size(-3) % factor != 0 || x.size(-3) / factor % factor != 0) {
        fail(where("ornik::pixel_shuffle"), "pixel_shuffle(): the channels of ", describe(x), " can not be divided by ",
             factor, " twice.");
    }
    const std::int64_t channels = x.size(-3) / factor / factor;
    const std::int64_t rows = x.size(-2);
    const std::int64_t columns = x.size(-1);
    return rearranged(x, {channels, factor, factor, rows, columns}, {0, 3, 1, 4, 2},
                      {channels, rows * factor, columns * factor});
}

KTensor pixel_unshuffle(const KTensor& x, std::int64_t factor) {
    autograd::check_defined("pixel_unshuffle", x, 0);
    if (factor < 1 || x.ndim() < 3 || x.size(-2) % factor != 0 || x.size(-1) % factor != 0) {
        fail(where("ornik::pixel_unshuffle"), "pixel_unshuffle(): the rows and columns of ", describe(x),
             " can not be divided by ", factor, ".");
    }
    const std::int64_t channels = x.size(-3);
    const std::int64_t rows = x.size(-2) / factor;
    const std::int64_t columns = x.size(-1) / factor;
    return rearranged(x, {channels, rows, factor, columns, factor}, {0, 2, 4, 1, 3},
                      {channels * factor * factor, rows, columns});
}

}  // namespace ornik
