// ktensor.h: the tensor that programs hold: a value that remembers where it came from.
//
//     using ornik::KTensor;
//     KTensor w = KTensor::randn({784, 10}).requires_grad();
//     KTensor loss = ornik::cross_entropy(ornik::matmul(x, w), labels);
//     loss.backward();
//     ornik::NoGrad frozen;
//     w -= 0.1F * w.grad();
//
// A KTensor is a handle, one pointer wide: copies name the same tensor, and nothing is deleted by hand. Operations
// broadcast their operands and give new tensors, views where they say so. Where an operand asks for gradients, the
// result knows its operation and operands until it is dropped or backward() has run (autograd.h).
//
// The functions stand in headers by family (elements.h, reductions.h, ...); the members here are the ones that
// people look for at a tensor. Errors are ornik::Error, raised before anything is allocated or written.
#pragma once

#include <complex>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "../export.h"
#include "../tensor/dtype.h"
#include "../tensor/scalar.h"
#include "../utils/error.h"

namespace ornik {

class Tensor;

namespace autograd {
struct Impl;
ORNIK_API void retain(Impl* impl) noexcept;
ORNIK_API void release(Impl* impl) noexcept;
}  // namespace autograd

class ORNIK_API KTensor {
  public:
    /// No tensor: defined() is false, and every operation refuses it.
    KTensor() noexcept = default;
    KTensor(const KTensor& other) noexcept : impl_(other.impl_) { retain(); }
    KTensor(KTensor&& other) noexcept : impl_(other.impl_) { other.impl_ = nullptr; }
    KTensor& operator=(const KTensor& other) noexcept {
        KTensor copy(other);
        std::swap(impl_, copy.impl_);
        return *this;
    }
    KTensor& operator=(KTensor&& other) noexcept {
        std::swap(impl_, other.impl_);
        return *this;
    }
    ~KTensor() {
        if (impl_ != nullptr) {
            autograd::release(impl_);
        }
    }

    /// Takes over a tensor of the floors below, which nobody else may delete. Null gives an undefined KTensor.
    explicit KTensor(std::unique_ptr<Tensor> tensor);

    // ---- Creation (creation.cpp): extents of 0 are fine ----

    /// Elements of any value.
    [[nodiscard]] static KTensor empty(const Dims& shape, std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor zeros(const Dims& shape, std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor ones(const Dims& shape, std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor full(const Dims& shape, const Scalar& value, std::int64_t dtype = dtype::float32);

    [[nodiscard]] bool defined() const noexcept { return impl_ != nullptr; }
    /// True when both handles name the same tensor.
    [[nodiscard]] bool is(const KTensor& other) const noexcept { return impl_ == other.impl_; }

    // ---- What it is ----

    [[nodiscard]] const Dims& shape() const;
    /// In elements.
    [[nodiscard]] const Dims& strides() const;
    /// Of one axis; negative ones count from the end.
    [[nodiscard]] std::int64_t size(int axis) const;
    [[nodiscard]] std::int64_t size() const;
    [[nodiscard]] int ndim() const;
    [[nodiscard]] std::int64_t dtype() const;
    /// True for rows that stand one behind the other without gaps.
    [[nodiscard]] bool is_contiguous() const;
    [[nodiscard]] bool is_floating() const;
    [[nodiscard]] bool is_complex() const;
    /// The tensor of the floors below: owned by this handle, null when undefined. Writes through it are not
    /// recorded.
    [[nodiscard]] Tensor* tensor() const noexcept;

    // ---- Gradients (autograd.h has the rest) ----

    /// Asks for gradients, or no longer. Floating and complex tensors; a result of recorded operations wants them
    /// anyway and can not refuse (detach() gives a tensor that does not). Returns the tensor itself.
    KTensor& requires_grad(bool wanted = true) &;
    KTensor requires_grad(bool wanted = true) && { return std::move(requires_grad(wanted)); }
    /// Will backward() reach this tensor?
    [[nodiscard]] bool wants_grad() const noexcept;
    /// Made by the user, not by a recorded operation.
    [[nodiscard]] bool is_leaf() const noexcept;
    /// The gradients that backward() has added up; undefined before. Of the tensor's shape and dtype. For a complex
    /// z = x + iy it is dL/dx + i dL/dy.
    [[nodiscard]] KTensor grad() const;
    /// Replaces or, undefined, drops it. Shape and dtype must be the tensor's.
    void set_grad(const KTensor& gradient);
    void zero_grad() { set_grad(KTensor()); }
    /// Keeps the gradient of this result, too.
    void retain_grad();
    /// Adds the gradients of every leaf that this tensor was computed from to their grad(). `seed`, of this tensor's
    /// shape and dtype, is the gradient of this tensor; it may be left out for a single real element, and counts as 1.
    /// Saved values are released unless `retain_graph`. With `create_graph` the pass itself is recorded.
    void backward(const KTensor& seed, bool retain_graph = false, bool create_graph = false) const;
    void backward() const { backward(KTensor()); }
    /// The same elements, without a past: shares the storage.
    [[nodiscard]] KTensor detach() const;
    /// Calls `hook` with the whole gradient of this tensor before it goes further; what the hook returns, if defined,
    /// takes its place. Hooks run in the order of their registration. The number returned removes it.
    std::int64_t register_hook(std::function<KTensor(const KTensor&)> hook);
    void remove_hook(std::int64_t number);

    // ---- For the operations' own code ----

    [[nodiscard]] autograd::Impl* impl() const noexcept { return impl_; }
    /// Takes over one count of `impl`.
    static KTensor adopt(autograd::Impl* impl) noexcept {
        KTensor result;
        result.impl_ = impl;
        return result;
    }

  private:
    void retain() const noexcept {
        if (impl_ != nullptr) {
            autograd::retain(impl_);
        }
    }

    autograd::Impl* impl_ = nullptr;
};

}  // namespace ornik
