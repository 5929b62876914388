// past.h: where a tensor came from, read and changed by several threads. Internal.
//
// An operation in place gives its target another past while other threads may use the target: what they compute then is
// open, but the past that they find is whole.
#pragma once

#include <mutex>

#include "impl.h"
#include "node.h"

namespace ornik::autograd {

struct Past {
    Ref<Node> node;
    std::uint32_t output = 0;
};

/// The lock of a tensor's past: one of a few for all tensors, held for a few instructions.
std::mutex& past_lock(const Impl& impl) noexcept;

Past past_of(const Impl& impl);
void set_past(Impl& impl, Past past);

/// A handle of its own on a result, whose past stays when the result's changes; a leaf as it is.
KTensor with_past_of_now(const KTensor& tensor);

}  // namespace ornik::autograd
