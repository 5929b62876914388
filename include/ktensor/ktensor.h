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
#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "../export.h"
#include "../tensor/dtype.h"
#include "../tensor/scalar.h"
#include "../utils/error.h"

namespace ornik {

class Index;
class IndexList;
class Tensor;

namespace autograd {
struct Impl;
ORNIK_API void retain(Impl* impl) noexcept;
ORNIK_API void release(Impl* impl) noexcept;
}  // namespace autograd

namespace detail {

/// Numbers in nested braces, as they stand in a program; see KTensor's constructor. The library fills and frees the
/// vectors, whose memory is of its heap.
class NestedNumbers {
  public:
    template <typename T>
    requires(std::is_arithmetic_v<T>) NestedNumbers(T value)  // NOLINT(google-explicit-constructor)
        : NestedNumbers(OneNumber{plain(value)}) {}
    template <typename T>
    NestedNumbers(const std::complex<T>& value)  // NOLINT(google-explicit-constructor)
        : NestedNumbers(OneNumber{Scalar(value)}) {}
    ORNIK_API NestedNumbers(std::initializer_list<NestedNumbers> rows);
    NestedNumbers(const NestedNumbers&) = delete;
    NestedNumbers& operator=(const NestedNumbers&) = delete;
    ORNIK_API ~NestedNumbers();

    const Dims& shape() const { return shape_; }
    const std::vector<Scalar>& numbers() const { return numbers_; }

  private:
    struct OneNumber {
        Scalar value;
    };
    ORNIK_API explicit NestedNumbers(const OneNumber& number);

    template <typename T>
    static Scalar plain(T value) {
        if constexpr (std::is_same_v<T, bool>) {
            return Scalar(value);
        } else if constexpr (std::is_integral_v<T>) {
            return Scalar(static_cast<std::int64_t>(value));
        } else if constexpr (std::is_same_v<T, float>) {
            return Scalar(value);
        } else {
            return Scalar(static_cast<double>(value));
        }
    }

    Dims shape_;
    std::vector<Scalar> numbers_;
};

}  // namespace detail

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

    /// Numbers in nested braces, all rows of one length: KTensor({{1.0F, 2.0F}, {3.0F, 4.0F}}) is [2, 2]. Whole numbers
    /// give int64, float gives float32, double float64; mixed ones the wider kind.
    KTensor(std::initializer_list<detail::NestedNumbers> rows);
    /// Without axes: one number of the scalar's type.
    [[nodiscard]] static KTensor scalar(const Scalar& value);
    /// A copy of the numbers, in row-major order, under `shape` (left out: one axis). T is one of the ten element types
    /// or std::complex.
    template <typename T>
    [[nodiscard]] static KTensor from(std::span<const T> numbers, const Dims& shape) {
        return copy_of(numbers.data(), numbers.size(), shape, element_code<T>());
    }
    template <typename T>
    [[nodiscard]] static KTensor from(const std::vector<T>& numbers, const Dims& shape) {
        return from(std::span<const T>(numbers), shape);
    }
    template <typename T>
    [[nodiscard]] static KTensor from(const std::vector<T>& numbers) {
        return from(numbers, {static_cast<std::int64_t>(numbers.size())});
    }
    /// A tensor over memory that somebody else owns, without a copy: `shape` and `strides` (in elements; none:
    /// row-major) count from `data`. The memory stays until `deleter` is called, once, when nobody uses it any more, on
    /// whatever thread. Writes by others are not noticed by what watches saved values. With `read_only` every operation
    /// in place refuses.
    [[nodiscard]] static KTensor from_memory(void* data, const Dims& shape, const Dims& strides, std::int64_t dtype,
                                             std::function<void()> deleter, bool read_only = false);

    /// Elements of any value.
    [[nodiscard]] static KTensor empty(const Dims& shape, std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor zeros(const Dims& shape, std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor ones(const Dims& shape, std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor full(const Dims& shape, const Scalar& value, std::int64_t dtype = dtype::float32);

    [[nodiscard]] static KTensor empty_like(const KTensor& other) { return empty(other.shape(), other.dtype()); }
    [[nodiscard]] static KTensor zeros_like(const KTensor& other) { return zeros(other.shape(), other.dtype()); }
    [[nodiscard]] static KTensor ones_like(const KTensor& other) { return ones(other.shape(), other.dtype()); }
    [[nodiscard]] static KTensor full_like(const KTensor& other, const Scalar& value) {
        return full(other.shape(), value, other.dtype());
    }
    /// start, start + step, ... below `end` (above it for a negative step): ceil((end - start) / step) numbers, each
    /// start + i step.
    [[nodiscard]] static KTensor arange(double start, double end, double step = 1, std::int64_t dtype = dtype::int64);
    [[nodiscard]] static KTensor arange(std::int64_t end) { return arange(0, static_cast<double>(end)); }
    /// `count` numbers from start to end, both included.
    [[nodiscard]] static KTensor linspace(double start, double end, std::int64_t count,
                                          std::int64_t dtype = dtype::float32);
    /// base to the powers that linspace gives.
    [[nodiscard]] static KTensor logspace(double start, double end, std::int64_t count, double base = 10,
                                          std::int64_t dtype = dtype::float32);
    /// Ones where column - row == offset.
    [[nodiscard]] static KTensor eye(std::int64_t rows, std::int64_t columns, std::int64_t offset = 0,
                                     std::int64_t dtype = dtype::float32);
    [[nodiscard]] static KTensor eye(std::int64_t n) { return eye(n, n); }

    // Random numbers of the default generator (random/generator.h): the same after set_random_seed everywhere. Floating
    // and complex dtypes but for whole numbers.

    [[nodiscard]] static KTensor randn(const Dims& shape, std::int64_t dtype = dtype::float32, double mean = 0,
                                       double deviation = 1);
    /// Uniform in [low, high).
    [[nodiscard]] static KTensor rand(const Dims& shape, std::int64_t dtype = dtype::float32, double low = 0,
                                      double high = 1);
    /// Whole numbers of [low, high).
    [[nodiscard]] static KTensor randint(std::int64_t low, std::int64_t high, const Dims& shape,
                                         std::int64_t dtype = dtype::int64);
    /// 0 .. n - 1 in random order.
    [[nodiscard]] static KTensor randperm(std::int64_t n, std::int64_t dtype = dtype::int64);

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

    // ---- Its elements ----

    /// The only element, as T: refused where T can not hold its kind (a complex number as a real one, a fraction as an
    /// integer).
    template <typename T>
    [[nodiscard]] T item() const {
        T value;
        copy_item(&value, element_code<T>());
        return value;
    }
    /// The elements of a tensor of dtype T whose rows stand one behind the other. Valid while the tensor is.
    template <typename T>
    [[nodiscard]] std::span<const T> span() const {
        return {static_cast<const T*>(checked_elements(element_code<T>())), static_cast<std::size_t>(size())};
    }
    /// The same for writing. Counts as a write in place, now: what was saved of the tensor is stale.
    template <typename T>
    [[nodiscard]] std::span<T> mutable_span() {
        return {static_cast<T*>(writable_elements(element_code<T>())), static_cast<std::size_t>(size())};
    }
    /// All elements in row-major order.
    template <typename T>
    [[nodiscard]] std::vector<T> to_vector() const {
        std::vector<T> values(static_cast<std::size_t>(size()));
        copy_elements(values.data(), element_code<T>());
        return values;
    }
    /// As nested brackets with columns aligned; of more than 1000 elements the first and last three of each axis.
    /// `precision` digits after the point at most.
    [[nodiscard]] std::string to_string(int precision = 4) const;

    /// The tensor of the floors below: owned by this handle, null when undefined. Writes through it are not
    /// recorded.
    [[nodiscard]] Tensor* tensor() const noexcept;

    // ---- Its parts (index.h has the items, indexing.h the rules and the functions of the family) ----

    /// x.index({0, Slice(1), ellipsis}): a view, or a copy where index tensors are among the items.
    [[nodiscard]] KTensor index(const IndexList& items) const;
    /// A view of one slice of the first axis.
    [[nodiscard]] KTensor operator[](std::int64_t position) const;
    [[nodiscard]] KTensor operator[](const Index& item) const;
    /// Writes the value, converted and broadcast, into the selected elements, or adds it to them.
    KTensor& set_index(const IndexList& items, const KTensor& value, bool accumulate = false);
    KTensor& set_index(const IndexList& items, const Scalar& value, bool accumulate = false);

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

    // ---- Operations that people look for here: the functions of these names, which the families' headers describe
    // ----

    [[nodiscard]] KTensor astype(std::int64_t dtype) const;
    [[nodiscard]] KTensor clone() const;
    [[nodiscard]] KTensor contiguous() const;

    [[nodiscard]] KTensor reshape(const Dims& shape) const;
    [[nodiscard]] KTensor view(const Dims& shape) const;
    [[nodiscard]] KTensor flatten(int start = 0, int end = -1) const;
    [[nodiscard]] KTensor broadcast_to(const Dims& shape) const;
    [[nodiscard]] KTensor permute(const std::vector<int>& axes) const;
    /// The last two axes, or the two given, change places.
    [[nodiscard]] KTensor transpose() const;
    [[nodiscard]] KTensor transpose(int a, int b) const;
    /// Of a matrix; a tensor of fewer axes is its own.
    [[nodiscard]] KTensor t() const;
    [[nodiscard]] KTensor squeeze() const;
    [[nodiscard]] KTensor squeeze(const std::vector<int>& axes) const;
    [[nodiscard]] KTensor unsqueeze(int axis) const;

    [[nodiscard]] KTensor sum(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor prod(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor mean(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor var(const std::vector<int>& axes = {}, bool keep_dims = false, double correction = 1) const;
    [[nodiscard]] KTensor std_dev(const std::vector<int>& axes = {}, bool keep_dims = false,
                                  double correction = 1) const;
    [[nodiscard]] KTensor l2_norm(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor(max)(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor(min)(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor argmax(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor argmin(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor any(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor all(const std::vector<int>& axes = {}, bool keep_dims = false) const;
    [[nodiscard]] KTensor cumsum(int axis) const;
    [[nodiscard]] KTensor softmax(int axis = -1) const;
    [[nodiscard]] KTensor log_softmax(int axis = -1) const;

    [[nodiscard]] KTensor exp() const;
    [[nodiscard]] KTensor log() const;
    [[nodiscard]] KTensor sqrt() const;
    [[nodiscard]] KTensor rsqrt() const;
    [[nodiscard]] KTensor sqr() const;
    [[nodiscard]] KTensor sin() const;
    [[nodiscard]] KTensor cos() const;
    [[nodiscard]] KTensor tanh() const;
    [[nodiscard]] KTensor sigmoid() const;
    [[nodiscard]] KTensor relu() const;
    [[nodiscard]] KTensor abs() const;
    [[nodiscard]] KTensor neg() const;
    [[nodiscard]] KTensor conj() const;
    [[nodiscard]] KTensor real() const;
    [[nodiscard]] KTensor imag() const;
    [[nodiscard]] KTensor pow(const KTensor& exponent) const;
    [[nodiscard]] KTensor pow(const Scalar& exponent) const;
    [[nodiscard]] KTensor clamp(const Scalar& min, const Scalar& max) const;

    [[nodiscard]] KTensor matmul(const KTensor& other) const;
    [[nodiscard]] KTensor dot(const KTensor& other) const;

    // In place; each returns this tensor.

    KTensor& add_(const KTensor& other);
    KTensor& add_(const Scalar& number);
    KTensor& sub_(const KTensor& other);
    KTensor& sub_(const Scalar& number);
    KTensor& mul_(const KTensor& other);
    KTensor& mul_(const Scalar& number);
    KTensor& div_(const KTensor& other);
    KTensor& div_(const Scalar& number);
    KTensor& clamp_(const Scalar& min, const Scalar& max);
    KTensor& copy_(const KTensor& source);
    KTensor& fill_(const Scalar& value);
    KTensor& zero_();

    // ---- For the operations' own code ----

    [[nodiscard]] autograd::Impl* impl() const noexcept { return impl_; }
    /// Takes over one count of `impl`.
    static KTensor adopt(autograd::Impl* impl) noexcept {
        KTensor result;
        result.impl_ = impl;
        return result;
    }

  private:
    template <typename T>
    static constexpr std::int64_t element_code() {
        if constexpr (std::is_same_v<T, std::complex<float>>) {
            return dtype::complex64;
        } else if constexpr (std::is_same_v<T, std::complex<double>>) {
            return dtype::complex128;
        } else if constexpr (std::is_same_v<T, long long>) {
            return dtype::int64;
        } else {
            return dtype_code<T>;
        }
    }
    static KTensor copy_of(const void* numbers, std::size_t count, const Dims& shape, std::int64_t dtype);
    void copy_item(void* value, std::int64_t dtype) const;
    void copy_elements(void* values, std::int64_t dtype) const;
    const void* checked_elements(std::int64_t dtype) const;
    void* writable_elements(std::int64_t dtype);
    void retain() const noexcept {
        if (impl_ != nullptr) {
            autograd::retain(impl_);
        }
    }

    autograd::Impl* impl_ = nullptr;
};

ORNIK_API std::ostream& operator<<(std::ostream& stream, const KTensor& tensor);

}  // namespace ornik
