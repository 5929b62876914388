// impl.h: what stands behind a KTensor handle. Internal.
//
//     KTensor -> Impl -> Data -> Tensor       the elements
//                     -> PastOf -> Node       the operation they came from, if it is remembered (node.h)
//                     -> GradState            the gradient, of those who ask for one
//
// Nodes save Data, never Impl: what is saved leads to no node, so a saved result makes no cycle.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

#include "../tensor/tensor.h"
#include "../utils/object_cache.h"
#include "hooks.h"
#include "ktensor.h"
#include "past.h"
#include "ref.h"

namespace ornik::autograd {

/// Objects that come and go with every operation.
struct Cached {
    static void* operator new(std::size_t bytes) { return detail::take_object_memory(bytes); }
    static void operator delete(void* memory, std::size_t bytes) noexcept { detail::give_object_memory(memory, bytes); }
};

struct Data : Cached {
    explicit Data(std::unique_ptr<Tensor> t) : tensor(std::move(t)) {}

    std::atomic<std::uint32_t> references{1};
    std::unique_ptr<Tensor> tensor;
};
inline void destroy(Data* data) noexcept { delete data; }

/// The gradient of a leaf, or of a result that keeps its own.
struct GradState {
    std::atomic<std::uint32_t> references{1};
    std::mutex lock;  // guards the gradient: graphs of several threads may end in one leaf
    KTensor gradient;
    MadeOnce<HookList> hooks;
    std::atomic<std::int64_t> next_hook{0};  // the number of the tensor's next hook, wherever that is kept
};
inline void destroy(GradState* state) noexcept { delete state; }

struct Impl : Cached {
    Impl(Ref<Data> elements, std::uint32_t writes) : seen(writes), data(std::move(elements)) {}

    std::atomic<std::uint32_t> references{1};
    std::atomic<std::uint32_t> seen;    // recorded writes to the storage when this handle's view of it was right
    std::atomic<bool> detached{false};  // asks for values alone: recorded writes through others do not matter
    bool leaf_wants_grad = false;
    bool keeps_grad = false;
    Ref<Data> data;
    PastOf past;
    MadeOnce<GradState> state;
};
inline void destroy(Impl* impl) noexcept { delete impl; }

/// A new tensor without a past. `tensor` is not null.
KTensor make_ktensor(std::unique_ptr<Tensor> tensor);
KTensor make_ktensor(Ref<Data> data);
inline KTensor make_ktensor(Tensor* tensor) { return make_ktensor(std::unique_ptr<Tensor>(tensor)); }

/// x's elements under another geometry, `offset` elements further on: without a past.
KTensor share(const KTensor& x, const Dims& shape, const Dims& strides, std::int64_t offset = 0);

/// Writes to the storage so far, and recorded ones; 0 without a storage.
inline std::uint32_t version_of(const Tensor& tensor) {
    const tensorT::Tensor_storage* storage = tensor.borrow_storage();
    return storage != nullptr ? storage->version() : 0;
}
inline std::uint32_t recorded_version_of(const Tensor& tensor) {
    const tensorT::Tensor_storage* storage = tensor.borrow_storage();
    return storage != nullptr ? storage->recorded_version() : 0;
}

/// Was the memory behind the handle changed by a recorded operation on another, so that its past is wrong?
inline bool is_stale(const Impl& impl) {
    return !impl.detached.load(std::memory_order_relaxed) &&
           impl.seen.load(std::memory_order_relaxed) != recorded_version_of(*impl.data->tensor);
}

/// A handle of its own on a result, whose past stays when the result's changes; a leaf as it is.
KTensor with_past_of_now(const KTensor& tensor);

/// Nobody else holds the elements, and every one has a place of its own in row-major order: they may be changed.
bool is_sole_owner(const KTensor& tensor);

/// An uninitialised row-major tensor, of any number of elements.
std::unique_ptr<Tensor> empty_tensor(const Dims& shape, std::int64_t dtype);
/// A row-major copy, of any number of elements.
std::unique_ptr<Tensor> copy_of(const Tensor& tensor);

/// "[2, 3]"
std::string list_text(const Dims& numbers);
/// "[2, 3] float32"
std::string describe(const KTensor& tensor);
std::string describe(const Dims& shape, std::int64_t dtype);

}  // namespace ornik::autograd
