// by_hand.h: the passes that KTensor records, written by hand over plain tensors: the yardstick of its time, its memory
// and its bits.
#pragma once

#include <ornik.h>

#include <memory>
#include <vector>

namespace bench {

using Owned = std::unique_ptr<ornik::Tensor>;

struct HandPass {
    Owned result;
    std::vector<Owned> gradients;  // of the parameters, in their order, and of the input where it is asked for
};

/// The demo's convolutional network and cross entropy. `state` is that of the modules: the parameters, then for each
/// batch normalization mean, variance and a count, which stays.
HandPass network_by_hand(const std::vector<ornik::Tensor*>& state, ornik::Tensor* images, ornik::Tensor* labels);

/// A transformer block with normalizations in front of its parts, of parameters as Block has them (block.h), from the
/// gradient of its result. The input's gradient comes last.
HandPass block_by_hand(const std::vector<ornik::Tensor*>& parameters, int heads, ornik::Tensor* x,
                       ornik::Tensor* result_gradient);

}  // namespace bench
