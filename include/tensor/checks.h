// checks.h: checks that the front ends share, and the place where every public write announces itself. Internal.
//
//     check_operands(at, x, index);   // first: what follows may look at both
//     ...                             // shapes, dtypes, ranges
//     announce_write(at, x);          // last: from here on x is changed
//
// Null is a normal answer of some functions, and tensors without elements in memory are easily made, so both arrive
// anywhere. Every public function refuses them before it looks at a field; the engine and Borrowed do so once more for
// what kernels are about to walk.
#pragma once

#include <string_view>

#include "tensor.h"

namespace ornik {

namespace detail {

/// Can a kernel walk its elements? Not those of a null, sparse or storage-less tensor.
inline bool has_elements(const Tensor* t) {
    if (t == nullptr) {
        return false;
    }
    const tensorT::Tensor_storage* storage = t->borrow_storage();
    return storage != nullptr && t->is_dense() && (storage->getRawData() != nullptr || t->Size() == 0);
}

inline bool is_writable(const Tensor* t) { return has_elements(t) && !t->borrow_storage()->read_only(); }

/// Says which of the faults above the tensor has.
[[noreturn]] void refuse_operand(const Where& at, const Tensor* t);
[[noreturn]] void refuse_output(const Where& at, const Tensor* t);

}  // namespace detail

/// Refuses null, for functions that read descriptions alone: shapes, dtypes, storages to share.
template <typename... Tensors>
void check_given(const Where& at, const Tensors*... tensors) {
    ((tensors == nullptr ? detail::refuse_operand(at, tensors) : void()), ...);
}

/// Refuses what has no elements that a kernel can walk: null, sparse matrices, tensors without a storage.
template <typename... Tensors>
void check_operands(const Where& at, const Tensors*... tensors) {
    ((detail::has_elements(tensors) ? void() : detail::refuse_operand(at, tensors)), ...);
}

/// The same for operands that may be left out.
template <typename... Tensors>
void check_optional(const Where& at, const Tensors*... tensors) {
    ((tensors == nullptr || detail::has_elements(tensors) ? void() : detail::refuse_operand(at, tensors)), ...);
}

/// As check_operands; refuses a tensor whose storage is read-only as well.
template <typename... Tensors>
void check_writable(const Where& at, const Tensors*... tensors) {
    ((detail::is_writable(tensors) ? void() : detail::refuse_output(at, tensors)), ...);
}

/// Checks that all tensors are writable, then counts a write of each. Comes after all other checks of a call,
/// just before it writes.
template <typename... Tensors>
void announce_write(const Where& at, const Tensors*... tensors) {
    check_writable(at, tensors...);
    (tensors->borrow_storage()->note_write(), ...);
}

/// Refuses an output whose elements share places (an expanded, stride-0 view): what it would hold depends
/// on who writes last. Tensors without elements pass.
void check_not_expanded(const Where& at, const Tensor* out);

/// Refuses a tensor on another device or of another dtype than `like`; `name` is the operation's in the message.
void check_alike(const Where& at, std::string_view name, const Tensor* t, const Tensor* like);

/// Refuses a null output gradient, another device or dtype than `like`'s, and another shape than the output's.
void check_output_gradient(const Where& at, std::string_view name, const Tensor* gradient, const Tensor* like,
                           const Dims& shape);

}  // namespace ornik
