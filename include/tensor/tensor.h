// tensor.h: the n-dimensional strided array that every operation works on.
//
//     std::unique_ptr<ornik::Tensor> a(ornik::Tensor::ones({2, 3}, 0, ornik::dtype::float32));
//     std::unique_ptr<ornik::Tensor> b(a->add_scalar(1.5F));
//
// Every operation that makes a tensor returns a new heap object that the caller deletes; views share the
// storage of the tensor they were made from. Refused arguments raise ornik::Error before anything
// is allocated or written. The members stand in blocks by family; each block ("// ----") says which file of
// src/tensor/ defines it:
//
//   what a tensor is     construction, queries, state, updates, initialisers
//   where it comes from  creation, sequences and matrices, fills, random numbers
//   the same elements    conversion and copying, devices, broadcasting, views, reshaping, selection, printing
//   what is computed     arithmetic, element-wise mathematics, comparisons and logic, matrix products
//
// Reductions, sorting, indexing and linear algebra are free functions (tensor_math/), as are joins and attention's
// reshapes (tensor_shape.h), sparse matrices (tensor_sparse.h) and what networks need (nn/).
#pragma once

#include <atomic>
#include <complex>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../export.h"
#include "../utils/complex_helper.h"
#include "../utils/error.h"
#include "dtype.h"
#include "scalar.h"
#include "tensor_meta.h"
#include "tensor_storage.h"

namespace ornik {

/// What a creation function needs to make a tensor like another one.
struct TensorToptions {
    std::int64_t dtype = 0;
    std::int64_t device = 0;
    Dims shape;
    std::int64_t size = 0;
    Dims stride;
    std::int32_t ndim = 0;
};

/// The packed word of the creation functions: dtype code in the low 4 bits, device slot above (0 for
/// device codes below 1000, else device - 999). Neither code is checked.
ORNIK_API std::int32_t pack_dtype_and_device(std::int64_t dtype, std::int64_t device);

class ORNIK_API Tensor {
  public:
    // ---- Construction and destruction (tensor.cpp) ----

    /// No shape, no meta, no storage.
    Tensor();
    /// An uninitialised tensor; `packed` is the dtype-and-device word. Extents of 1 and above, at most 29
    /// axes; an empty shape makes a scalar of one element. Sets the OpenMP team size of the calling
    /// thread to the configured one (ConfigSetNumThreads).
    Tensor(const Dims& shape, std::int32_t packed);
    /// As above; when `data` is not null, size x item size bytes are copied from it. `ndarray_handle`
    /// is kept for the caller.
    Tensor(const Dims& shape, const void* data, std::int32_t packed, void* ndarray_handle);
    /// The packed word is the low 32 bits of the other tensor's device code, not its dtype: for a CPU
    /// tensor the result is an uninitialised bool tensor. See empty_like for a tensor of the same dtype.
    Tensor(const Dims& shape, const Tensor* other);
    /// An uninitialised bool CPU tensor of the shape; values and packed word are not used.
    Tensor(const std::vector<float>& values, const Dims& shape, std::int32_t packed);
    ~Tensor();
    Tensor(const Tensor&) = delete;
    Tensor& operator=(const Tensor&) = delete;
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory, std::size_t bytes) noexcept;

    // ---- Queries ----

    const Dims& Shape() const { return shape_; }
    const Dims& Strides() const { return strides_; }
    std::int64_t Size() const { return size_; }
    std::int64_t Dtype() const { return dtype_; }
    std::int64_t Device() const { return device_; }
    std::int32_t ndim() const { return ndim_; }
    /// Layout code (namespace layout); dense when there is no meta.
    std::int64_t Layout() const { return meta_ ? meta_->Layout() : layout::dense; }
    /// In elements; 0 when there is no meta.
    std::int64_t StorageOffset() const { return meta_ ? meta_->GetStorageOffset() : 0; }
    /// Bytes of one element.
    std::int64_t itemsize() const { return dtype_item_size(dtype_); }
    /// Address of element 0, storage offset included; null when there is no meta.
    void* getRawData() const { return meta_ ? meta_->getRawData() : nullptr; }
    /// The same address as a number.
    std::intptr_t get_data_intptr() const { return reinterpret_cast<std::intptr_t>(getRawData()); }
    std::shared_ptr<tensorT::Tensor_storage> getStorage() const { return meta_ ? meta_->getStorage() : nullptr; }
    /// Replaces the storage that the meta holds; it must hold every element of this tensor.
    void setStorage(const std::shared_ptr<tensorT::Tensor_storage>& storage);
    /// Null without a storage. The tensor's share is not passed on: for whoever holds the tensor.
    tensorT::Tensor_storage* borrow_storage() const { return meta_ ? meta_->getStorage().get() : nullptr; }
    /// From the first call on, updates of the tensor reach the meta at once.
    const std::shared_ptr<tensorT::Tensor_Meta>& getMeta() const {
        if (meta_axes_.load(std::memory_order_acquire) != Record::current) {
            give_meta_axes();
        }
        return meta_;
    }
    /// The record of the tensor's present description, made when it is asked for; null after Tensor().
    const std::shared_ptr<TensorToptions>& get_options() const;
    std::int64_t get_alloc_mem_size() const { return meta_ ? meta_->get_alloc_mem_size() : 0; }
    /// True for a dense tensor with fewer than two elements or with exactly the row-major strides. A tensor whose
    /// Size() is not its shape's count (see setSize, copy_tensor) is not contiguous.
    bool is_contiguous() const;

    bool is_dense() const { return Layout() == layout::dense; }
    bool is_csr() const { return Layout() == layout::csr; }
    bool is_coo() const { return Layout() == layout::coo; }

    bool isBool() const { return dtype_ == dtype::boolean; }
    bool isBoolType() const { return isBool(); }
    /// True for bool as well.
    bool isInteger() const { return dtype_ < dtype::float32; }
    /// True for bool as well, whatever the flag.
    bool isIntegralType(bool /*include_bool*/) const { return isInteger(); }
    bool isFloat() const { return is_dtype_class(dtype_, DtypeClass::floating); }
    bool isFloatingType() const { return isFloat(); }
    bool isComplexType() const { return is_dtype_class(dtype_, DtypeClass::complex); }
    static bool sameDtype(const Tensor* a, const Tensor* b);

    bool isCPU() const { return device_ == 0; }
    bool isGPU() const { return getDeviceID(device_) == 1; }
    /// -1 for a negative code, 0 (CPU) below 1000, 1 (GPU) below 10000, else 2.
    static std::int64_t getDeviceID(std::int64_t code);
    /// "CPU" for codes 0 .. 999, "GPU" for 1000 .. 9999, else "unknown".
    std::string getDeviceName() const;
    /// Device code - 1000, wrapping.
    std::int64_t getGPUIndex() const { return gpu_index_; }

    /// Product of the extents of axes 0 .. k-1. This and the next two work in 32 bits and fail for
    /// k > ndim - 1.
    std::int32_t size_to_dim(std::int32_t k) const;
    /// Product of the extents of axes k .. last.
    std::int32_t size_from_dim(std::int32_t k) const;
    /// Product of the extents of axes k+1 .. last.
    std::int32_t size_out_dim(std::int32_t k) const;

    /// Fails for 30 or more axes and for an extent whose low 32 bits are not a positive number.
    static void JungleInlegalShape(const Dims& shape);

    // ---- State of the language binding and of sparse tensors ----

    std::int32_t get_storage_type() const { return storage_type_; }
    void set_storage_type(std::int32_t type) { storage_type_ = type; }
    void* get_ndarray_handles() const { return ndarray_handles_; }
    void set_ndarray_handles(void* handle) { ndarray_handles_ = handle; }
    bool get_if_not_delete_ndarray_handle() const { return if_not_delete_ndarray_handle_; }
    void set_if_not_delete_ndarray_handle(bool flag) { if_not_delete_ndarray_handle_ = flag; }
    /// Whether the last thing that set the shape gave it no axes, unless set otherwise; false after Tensor().
    bool get_if_scalar() const { return if_scalar_; }
    void set_if_scalar(bool flag) { if_scalar_ = flag; }
    /// The component tensors of a sparse tensor (tensor_sparse.h says which); this tensor deletes them.
    const std::vector<Tensor*>& get_csr_members() const { return csr_members_; }
    void set_csr_members(const std::vector<Tensor*>& members) { csr_members_ = members; }

    // ---- Updates of the tensor's description; the data stays as it is (tensor_state.cpp) ----
    // An update after which elements would lie outside the storage is refused. One that fails changes nothing.

    /// New extents, each at least 1. The element count may change only while it is below 2. A contiguous tensor gets
    /// row-major strides, another keeps its strides if the number of axes stays. Where these would leave the storage,
    /// strides that show the same elements in the same order serve, if there are such.
    void updateShape(const Dims& shape);
    /// Row-major strides of the present shape.
    void updateStrides();
    void updateStrides(const Dims& strides);
    /// Recomputes the element count from the shape.
    void updateSize();
    void updateDtype(std::int64_t dtype);
    void updateDevice(std::int64_t device);
    void updateOffset(std::int64_t offset);
    /// At least 0 and at most the shape's count; any count without axes, where all indices mean the one element.
    /// Copies of a tensor with another Size() than its shape's count are by the shape.
    void setSize(std::int64_t size);
    /// Does nothing in this build: buffers go back when the last share of their storage does.
    void FreeData() {}

    // ---- Initialisers; each returns 0 (tensor_state.cpp) ----
    // They accept extents of 0. One that fails leaves the tensor as it was; one that succeeds leaves nothing of what
    // the tensor held before.

    /// Sets dtype, device, shape, size and row-major strides. No meta, no storage.
    int init_tensor_without_alloc_data(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout);
    /// As above, with a meta and a newly taken storage.
    int initialize_none_tensor(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout);
    /// A view: a meta that shares `storage`, with the given strides and offset in elements. Fails when
    /// an element would lie outside the storage. Negative extents are accepted where all strides are 0; reductions
    /// and indexing refuse such a view.
    int init_none_tensor_with_shared_storage(const Dims& shape, const Dims& strides, std::int64_t dtype,
                                             std::int64_t device,
                                             const std::shared_ptr<tensorT::Tensor_storage>& storage,
                                             std::int64_t layout, std::int64_t offset);
    /// A sparse matrix, that is one of layout CSR or COO: a meta without a storage. Takes over the members,
    /// unchecked, when it succeeds.
    int init_sparse_tensor(const Dims& shape, std::int64_t dtype, std::int64_t device, std::int64_t layout,
                           std::vector<std::unique_ptr<Tensor>>&& members);

    // ---- Creation: shape, device code, dtype code (tensor_create.cpp) ----

    [[nodiscard]] static Tensor* empty(const Dims& shape, std::int64_t device, std::int64_t dtype);
    [[nodiscard]] static Tensor* empty_like(const Tensor* t);
    [[nodiscard]] static Tensor* empty_with_dtype_and_dev(const Dims& shape, std::int32_t packed);
    /// `empty`, then the given strides replace the row-major ones; the storage keeps as many elements as
    /// the shape has.
    [[nodiscard]] static Tensor* empty_strided(const Dims& shape, const Dims& strides, std::int32_t packed);
    [[nodiscard]] static Tensor* empty_using_tensor_options(const TensorToptions& options);
    [[nodiscard]] static Tensor* new_tensor(const Dims& shape, const Dims& strides, bool scalar_flag,
                                            std::int64_t device, std::int64_t dtype);
    [[nodiscard]] static Tensor* zeros(const Dims& shape, std::int64_t device, std::int64_t dtype);
    [[nodiscard]] static Tensor* zeros_like(const Tensor* t);
    [[nodiscard]] static Tensor* zeros_with_tensor_options(const TensorToptions& options);
    [[nodiscard]] static Tensor* ones(const Dims& shape, std::int64_t device, std::int64_t dtype);
    /// The value is converted to the dtype. A complex value needs a complex dtype.
    [[nodiscard]] static Tensor* full(const Dims& shape, const Scalar& value, std::int64_t device, std::int64_t dtype);
    template <ScalarArgument T>
    [[nodiscard]] static Tensor* full(const Dims& shape, T value, std::int64_t device, std::int64_t dtype) {
        return full(shape, Scalar(value), device, dtype);
    }
    template <StandardComplex C>
    [[nodiscard]] static Tensor* full_std_complex_wrapper(const Dims& shape, C value, std::int64_t device,
                                                          std::int64_t dtype) {
        return full(shape, Scalar(value), device, dtype);
    }
    /// An uninitialised tensor without axes, of one element.
    [[nodiscard]] static Tensor* scalar(std::int32_t packed);

    // ---- Sequences and matrices (tensor_sequences.cpp) ----
    // Elements are produced by a running sum in single precision: x = start; x = x + step.

    /// ceil((end - start) / step) elements, end excluded. Real dtypes except bool.
    [[nodiscard]] static Tensor* arange(double start, double end, double step, std::int64_t device, std::int64_t dtype);
    /// floor((end - start) / step) + 1 elements, end included when reached.
    [[nodiscard]] static Tensor* range(float start, float end, float step, std::int64_t device, std::int64_t dtype);
    /// `num` values from start to end, both included.
    [[nodiscard]] static Tensor* linspace(float start, float end, std::int64_t num, std::int64_t device,
                                          std::int64_t dtype);
    /// base to the power of the values of linspace.
    [[nodiscard]] static Tensor* logspace(float start, float end, std::int64_t num, float base, std::int64_t device,
                                          std::int64_t dtype);
    /// rows x cols on the CPU: ones where column - row == offset, zeros elsewhere. -rows < offset < rows.
    [[nodiscard]] static Tensor* eye(std::int64_t rows, std::int64_t cols, std::int64_t offset, std::int64_t dtype);
    /// Fails for start or end that is NaN or infinite.
    static void CheckLegalArange(double start, double end, double step);
    /// A new tensor: the elements of the last two axes with column - row <= k, zeros elsewhere.
    [[nodiscard]] Tensor* tril(std::int64_t k) const;
    /// A new tensor: the elements of the last two axes with column - row >= k, zeros elsewhere.
    [[nodiscard]] Tensor* triu(std::int64_t k) const;
    /// A view: axes dim1 and dim2 (different; negative ones count from the end) are dropped, and a last
    /// axis walks the diagonal displaced by `offset` towards higher indices of dim2.
    [[nodiscard]] Tensor* diagonal(std::int64_t offset, int dim1, int dim2) const;

    // ---- Fills; the value is converted to the tensor's dtype (tensor_create.cpp) ----

    void fill_(double value);
    void fill_with_(const Scalar& value);
    template <ScalarArgument T>
    void fill_with_(T value) {
        fill_with_(Scalar(value));
    }
    template <StandardComplex C>
    void fill_std_complex_pybind_(C value) {
        fill_with_(Scalar(value));
    }

    // ---- Random numbers of the default generator, see random/generator.h (tensor_random.cpp) ----
    // Row-major order under any strides. Float or complex dtypes unless said otherwise; bounds and
    // probabilities are checked first.

    /// Normal deviates. Complex: variance std^2 in all, mean on the real part.
    [[nodiscard]] static Tensor* randn(const Dims& shape, double mean, double std, std::int64_t device,
                                       std::int64_t dtype);
    /// Uniform in [low, high), complex parts each.
    [[nodiscard]] static Tensor* randu(const Dims& shape, double low, double high, std::int64_t device,
                                       std::int64_t dtype);
    /// Whole numbers of [low, high), which the dtype (integer or floating) must hold exactly.
    [[nodiscard]] static Tensor* randint(const Dims& shape, std::int64_t low, std::int64_t high, std::int64_t device,
                                         std::int64_t dtype);
    /// 0 .. n - 1 in random order; integer dtypes.
    [[nodiscard]] static Tensor* permutation(std::int64_t n, std::int64_t device, std::int64_t dtype);
    /// 0 with probability p, else 1 / (1 - p): what a dropout layer multiplies by.
    [[nodiscard]] static Tensor* dropout_mask(const Dims& shape, double p, std::int64_t device, std::int64_t dtype);
    /// 1 with the probability in each element of `probs` (floating), else 0; of probs' dtype.
    [[nodiscard]] static Tensor* bernoulli(Tensor* probs);
    /// Successes in total_count trials of probability probs, element by element; both of one floating dtype.
    [[nodiscard]] static Tensor* binomial(Tensor* total_count, Tensor* probs);
    /// int64: num_samples categories for each row of `probs` ([categories] or [rows, categories], floating
    /// weights of any positive sum). Without replacement the categories of a row are distinct.
    [[nodiscard]] static Tensor* multinomial(Tensor* probs, std::int64_t num_samples, bool replacement = true);
    /// As randn. Deviates are made in pairs: with use_cached, half a pair left over is kept for the next
    /// such fill and used first, as randn does; without, it is dropped.
    void fill_rand_normal_inplace(double mean, double std, bool use_cached);
    /// Uniform in [0, scale).
    void fill_rand_uniform_inplace(double scale);
    /// Uniform in [-scale, scale).
    void fill_rand_signed_uniform_inplace(double scale);
    /// Uniform in [low, high).
    void fill_rand_uniform_withbound_inplace(double low, double high);
    /// 1 with probability p, else 0.
    void fill_rand_binary_inplace(double p);

    // ---- Conversion and copying (tensor_core.cpp) ----

    /// A new tensor of the dtype; null for a tensor that is not on the CPU.
    [[nodiscard]] Tensor* astype(std::int64_t dtype) const;
    /// As astype; when the tensor has the dtype already and `copy` is false, the tensor itself.
    [[nodiscard]] Tensor* toDtype(std::int64_t dtype, bool copy);
    /// Writes the tensor's elements, converted to `dtype`, into `target`, which must be of that dtype.
    /// With the tensor's own dtype and copy_flag, a plain copy_tensor comes first.
    void CopyToTargetWithDtype(Tensor* target, std::int64_t dtype, bool copy_flag);
    /// Copies src into this tensor, converting and broadcasting it.
    void copy_from_(Tensor* src);
    /// The tensor itself when it is contiguous, else a new row-major copy.
    [[nodiscard]] Tensor* contiguous();
    [[nodiscard]] Tensor* clone() const;
    [[nodiscard]] Tensor* copy() const { return clone(); }

    // ---- Moves between devices (tensor_device.cpp) ----

    /// A copy on the CPU; `device` must be 0.
    [[nodiscard]] Tensor* CPU(std::int64_t device);
    /// Refused in this build.
    [[nodiscard]] Tensor* GPU(std::int64_t device);
    void toCPU(std::int64_t device);
    void toGPU(std::int64_t device);
    void toDevice(std::int64_t device);

    // ---- Broadcasting: stride-0 views (tensor_shape.cpp) ----

    /// a and b under their common shape: two new views, in argument order.
    [[nodiscard]] static std::vector<Tensor*> broadcast(const Tensor* a, const Tensor* b);
    [[nodiscard]] static Tensor* broadcast_to(const Tensor* t, const Dims& shape);

    // ---- Views: new tensors on the same storage (tensor_shape.cpp) ----
    // No element is touched. Writes through a view are seen through the tensor, and the other way round.

    /// The same elements, in the same order, under another shape. One entry may be -1: it is inferred. Fails
    /// when the strides admit no such view; nothing can be viewed without axes.
    [[nodiscard]] Tensor* view(const Dims& shape) const;
    /// Axis i of the result is axis dims[i] of this tensor; every axis once, negative ones count from the end.
    [[nodiscard]] Tensor* permute(const std::vector<int>& dims) const;
    [[nodiscard]] Tensor* transpose(const std::vector<int>& dims) const { return permute(dims); }
    /// All axes in reverse order; at least two.
    [[nodiscard]] Tensor* transpose() const;
    /// Axes a and b, both in [0, ndim - 1], change places.
    [[nodiscard]] Tensor* swapaxis(int a, int b) const;
    /// Without the axes of extent 1.
    [[nodiscard]] Tensor* squeeze() const;
    /// Without the axis if its extent is 1; an axis of another extent stays. -1 names no axis: nothing is
    /// dropped.
    [[nodiscard]] Tensor* squeeze(int axis) const;
    /// Without the listed axes, each of extent 1; -1 names no axis.
    [[nodiscard]] Tensor* squeeze(const std::vector<int>& axes) const;
    /// With an axis of extent 1 at position `axis`, 0 .. ndim. A contiguous tensor stays contiguous.
    [[nodiscard]] Tensor* unsqueeze(int axis) const;

    // ---- Reshaping (tensor_shape.cpp) ----

    /// As view; a contiguous copy where the strides admit no view.
    [[nodiscard]] Tensor* reshape(const Dims& shape) const;
    /// In place, nothing inferred, extents of 1 and above. Where the strides admit no view the tensor moves to
    /// a contiguous copy of its elements. A tensor of fewer than two elements takes any element count: all
    /// elements of the new shape are then its one element, or 0 when it has none.
    void reshape_(const Dims& shape);
    /// A contiguous copy of another shape with as many elements; nothing inferred.
    [[nodiscard]] Tensor* reshape_copy(const Dims& shape) const;
    /// Axes start .. end, both included, become one; as reshape.
    [[nodiscard]] Tensor* flatten(int start, int end) const;
    /// reshape_({-1}): refused, as no extent is inferred in place. reshape_({Size()}) flattens.
    void flatten_();
    /// A copy with the elements in reverse order along every listed axis.
    [[nodiscard]] Tensor* flip(const std::vector<int>& dims) const;

    // ---- Selection by text, one item per axis (tensor_select.cpp) ----
    // The items' two grammars stand in utils/selection.h. Missing items count as ":". Nothing is allocated
    // or written before all items have been parsed and checked.

    /// A copy of the selected elements; legacy grammar. No axis is dropped.
    [[nodiscard]] Tensor* select(const std::vector<std::string>& items) const;
    /// A copy of the selected elements. Axes of plain integer items are dropped; without any left, the result is
    /// a scalar.
    [[nodiscard]] Tensor* select_ndim(const std::vector<std::string>& items) const;
    /// The same selection as a view; integers and ranges with a positive step.
    [[nodiscard]] Tensor* select_ndim_without_copy(const std::vector<std::string>& items) const;
    /// Gradient of this->select_ndim(items): a tensor of this shape and of grad's dtype that holds grad at the
    /// selected positions and 0 elsewhere; a position selected several times gets the sum. grad has the
    /// selection's shape, with or without the dropped axes.
    [[nodiscard]] Tensor* select_ndim_grad(const Tensor* grad, const std::vector<std::string>& items) const;
    /// Writes value, converted to this dtype and broadcast, into the selected elements; legacy grammar.
    void set_select_legacy(Tensor* value, const std::vector<std::string>& items);
    /// Writes value, converted to this dtype and broadcast, into the selected elements. Of several values for
    /// one position the last one stays.
    void set_select_ndim(Tensor* value, const std::vector<std::string>& items);
    /// Adds what select_ndim_grad gives to this tensor: collects the gradient of a tensor that several
    /// selections were made from, without a tensor of zeros for each.
    void set_select_ndim_grad(Tensor* grad, const std::vector<std::string>& items);

    // ---- Printing to standard output (tensor_print.cpp) ----

    /// Address, options and elements.
    void Print() const;
    /// The same; the arguments change nothing.
    void print(int precision, bool suppress) const;
    /// All fields, no elements. On a null tensor: "Tensor is nullptr!".
    void info() const;
    /// The same in short.
    void info_debug() const;

    // ---- Arithmetic (tensor_math/tensor_arithmetic.cpp, tensor_scalar_arithmetic.cpp) ----
    // Both operands have the same shape: broadcast first. Result dtypes follow the promotion tables of
    // tensor_math/promotion.h: sum, difference and product promote to the wider kind, a quotient is
    // always floating or complex, an integer scalar never widens an integer tensor. Integers wrap.

    [[nodiscard]] Tensor* add_tensor(Tensor* other);
    [[nodiscard]] Tensor* sub_tensor(Tensor* other);
    [[nodiscard]] Tensor* mult_tensor(Tensor* other);
    [[nodiscard]] Tensor* div_tensor(Tensor* other);
    /// The in-place forms keep this tensor's dtype; other is converted to it.
    void add_tensor_inplace(Tensor* other);
    void sub_tensor_inplace(Tensor* other);
    void mult_tensor_inplace(Tensor* other);
    void div_tensor_inplace(Tensor* other);
    /// The sum of all, in the first tensor's dtype; the list must not be empty.
    [[nodiscard]] static Tensor* add_tensors_list(const std::vector<Tensor*>& tensors);

    /// Any number of an element type or of a type that one of them holds: see scalar.h.
    [[nodiscard]] Tensor* add_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* sub_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* mult_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* div_scalar(const Scalar& scalar);
    void add_scalar_inplace(const Scalar& scalar);
    void sub_scalar_inplace(const Scalar& scalar);
    void mult_scalar_inplace(const Scalar& scalar);
    void div_scalar_inplace(const Scalar& scalar);
    /// The same with the type of the number given or deduced: add_scalar<float>(1).
    template <ScalarArgument T>
    [[nodiscard]] Tensor* add_scalar(T scalar) {
        return add_scalar(Scalar(scalar));
    }
    template <ScalarArgument T>
    [[nodiscard]] Tensor* sub_scalar(T scalar) {
        return sub_scalar(Scalar(scalar));
    }
    template <ScalarArgument T>
    [[nodiscard]] Tensor* mult_scalar(T scalar) {
        return mult_scalar(Scalar(scalar));
    }
    template <ScalarArgument T>
    [[nodiscard]] Tensor* div_scalar(T scalar) {
        return div_scalar(Scalar(scalar));
    }
    template <ScalarArgument T>
    void add_scalar_inplace(T scalar) {
        add_scalar_inplace(Scalar(scalar));
    }
    template <ScalarArgument T>
    void sub_scalar_inplace(T scalar) {
        sub_scalar_inplace(Scalar(scalar));
    }
    template <ScalarArgument T>
    void mult_scalar_inplace(T scalar) {
        mult_scalar_inplace(Scalar(scalar));
    }
    template <ScalarArgument T>
    void div_scalar_inplace(T scalar) {
        div_scalar_inplace(Scalar(scalar));
    }
    /// The same for the standard library's complex numbers.
    template <StandardComplex C>
    [[nodiscard]] Tensor* add_scalar_std_complex_wrapper(C scalar) {
        return add_scalar(Scalar(scalar));
    }
    template <StandardComplex C>
    [[nodiscard]] Tensor* sub_scalar_std_complex_wrapper(C scalar) {
        return sub_scalar(Scalar(scalar));
    }
    template <StandardComplex C>
    [[nodiscard]] Tensor* mult_scalar_std_complex_wrapper(C scalar) {
        return mult_scalar(Scalar(scalar));
    }
    template <StandardComplex C>
    [[nodiscard]] Tensor* div_scalar_std_complex_wrapper(C scalar) {
        return div_scalar(Scalar(scalar));
    }
    template <StandardComplex C>
    void add_scalar_inplace_std_complex_wrapper(C scalar) {
        add_scalar_inplace(Scalar(scalar));
    }
    template <StandardComplex C>
    void sub_scalar_inplace_std_complex_wrapper(C scalar) {
        sub_scalar_inplace(Scalar(scalar));
    }
    template <StandardComplex C>
    void mult_scalar_inplace_std_complex_wrapper(C scalar) {
        mult_scalar_inplace(Scalar(scalar));
    }
    template <StandardComplex C>
    void div_scalar_inplace_std_complex_wrapper(C scalar) {
        div_scalar_inplace(Scalar(scalar));
    }
    /// Called on the gradient of self * scalar: the gradient of self, that is this tensor times the
    /// scalar's conjugate.
    template <StandardComplex C>
    [[nodiscard]] Tensor* mult_scalar_std_complex_grad_wrapper(C scalar) {
        return mult_scalar(Scalar(std::conj(scalar)));
    }

    // ---- Element-wise mathematics, comparisons and logic (tensor_math/tensor_element_math.cpp) ----
    // New tensors of this one's shape; the forms in place need a result of this tensor's dtype. Errors,
    // special values, accuracy, forms with a given output and gradients: tensor_math/tensor_element_math.h.

    // Any dtype. float32 results for bool and the smaller integers, float64 for int64.

    [[nodiscard]] Tensor* exp();
    void exp_inplace();
    /// 2^x
    [[nodiscard]] Tensor* exp2();
    void exp2_inplace();
    /// e^x - 1
    [[nodiscard]] Tensor* expm1();
    void expm1_inplace();
    [[nodiscard]] Tensor* log();
    void log_inplace();
    [[nodiscard]] Tensor* log2();
    void log2_inplace();
    [[nodiscard]] Tensor* log10();
    void log10_inplace();
    /// log(1 + x)
    [[nodiscard]] Tensor* log1p();
    void log1p_inplace();
    [[nodiscard]] Tensor* sqrt();
    void sqrt_inplace();
    /// 1 / sqrt(x)
    [[nodiscard]] Tensor* rsqrt();
    void rsqrt_inplace();
    /// 1 / x
    [[nodiscard]] Tensor* reciprocal();
    void reciprocal_inplace();
    [[nodiscard]] Tensor* sin();
    void sin_inplace();
    [[nodiscard]] Tensor* cos();
    void cos_inplace();
    [[nodiscard]] Tensor* tan();
    void tan_inplace();
    [[nodiscard]] Tensor* asin();
    void asin_inplace();
    [[nodiscard]] Tensor* acos();
    void acos_inplace();
    [[nodiscard]] Tensor* atan();
    void atan_inplace();
    [[nodiscard]] Tensor* sinh();
    void sinh_inplace();
    [[nodiscard]] Tensor* cosh();
    void cosh_inplace();
    [[nodiscard]] Tensor* tanh();
    void tanh_inplace();
    [[nodiscard]] Tensor* asinh();
    void asinh_inplace();
    [[nodiscard]] Tensor* acosh();
    void acosh_inplace();
    [[nodiscard]] Tensor* atanh();
    void atanh_inplace();
    /// 1 / (1 + e^-x)
    [[nodiscard]] Tensor* sigmoid();
    void sigmoid_inplace();

    // Real dtypes; results as above.

    /// log(sigmoid(x))
    [[nodiscard]] Tensor* logsigmoid();
    void logsigmoid_inplace();
    /// log(1 + e^x)
    [[nodiscard]] Tensor* softplus();
    void softplus_inplace();
    /// x sigmoid(x)
    [[nodiscard]] Tensor* silu();
    void silu_inplace();
    /// x (1 + erf(x / sqrt(2))) / 2
    [[nodiscard]] Tensor* gelu();
    void gelu_inplace();
    [[nodiscard]] Tensor* erf();
    void erf_inplace();

    // Any dtype but, for neg, bool. The same dtype.

    [[nodiscard]] Tensor* neg();
    void neg_inplace();
    /// x x, wrapping for integers.
    [[nodiscard]] Tensor* sqr();
    void sqr_inplace();

    // Any dtype. Real results of the dtype of a complex tensor's parts.

    /// The magnitude of a complex number.
    [[nodiscard]] Tensor* abs();
    void abs_inplace();
    [[nodiscard]] Tensor* conj();
    void conj_inplace();
    /// A copy for real dtypes.
    [[nodiscard]] Tensor* real();
    void real_inplace();
    /// Zeros for real dtypes.
    [[nodiscard]] Tensor* imag();
    void imag_inplace();

    /// In (-pi, pi]; 0 or pi for real numbers.
    [[nodiscard]] Tensor* angle();
    void angle_inplace();

    // Any dtype; the same dtype.

    /// -1, 0 or 1; z / |z| for complex numbers. NaN stays.
    [[nodiscard]] Tensor* sign();
    void sign_inplace();

    // Real dtypes; the same dtype, integers as they are.

    [[nodiscard]] Tensor* floor();
    void floor_inplace();
    [[nodiscard]] Tensor* ceil();
    void ceil_inplace();
    /// Half to even.
    [[nodiscard]] Tensor* round();
    void round_inplace();
    [[nodiscard]] Tensor* trunc();
    void trunc_inplace();

    // Any dtype; bool results.

    /// Complex numbers: of either part, here and in is_inf; both parts are finite.
    [[nodiscard]] Tensor* is_nan();
    [[nodiscard]] Tensor* is_inf();
    [[nodiscard]] Tensor* is_finite();
    /// True for zero.
    [[nodiscard]] Tensor* logical_not();

    // bool and integers.

    [[nodiscard]] Tensor* bitwise_not();
    void bitwise_not_inplace();

    // Two tensors of one shape, or a tensor and a scalar. Dtypes promote as in arithmetic, but a scalar never
    // widens a tensor of its kind (a double a float32 tensor); in place, this tensor keeps its dtype.

    /// Integers: a negative exponent gives the whole part of the result; 0 to it gives 0.
    [[nodiscard]] Tensor* pow(Tensor* other);
    [[nodiscard]] Tensor* pow_scalar(const Scalar& scalar);
    void pow_inplace(Tensor* other);
    void pow_scalar_inplace(const Scalar& scalar);

    /// Of the dividend's sign; integers by 0 give 0.
    [[nodiscard]] Tensor* fmod(Tensor* other);
    [[nodiscard]] Tensor* fmod_scalar(const Scalar& scalar);
    void fmod_inplace(Tensor* other);
    void fmod_scalar_inplace(const Scalar& scalar);
    /// Of the divisor's sign; integers by 0 give 0.
    [[nodiscard]] Tensor* remainder(Tensor* other);
    [[nodiscard]] Tensor* remainder_scalar(const Scalar& scalar);
    void remainder_inplace(Tensor* other);
    void remainder_scalar_inplace(const Scalar& scalar);
    /// NaN of either operand wins, here and below.
    [[nodiscard]] Tensor* maximum(Tensor* other);
    [[nodiscard]] Tensor* maximum_scalar(const Scalar& scalar);
    void maximum_inplace(Tensor* other);
    void maximum_scalar_inplace(const Scalar& scalar);
    [[nodiscard]] Tensor* minimum(Tensor* other);
    [[nodiscard]] Tensor* minimum_scalar(const Scalar& scalar);
    void minimum_inplace(Tensor* other);
    void minimum_scalar_inplace(const Scalar& scalar);

    /// The angle of the point (other, self).
    [[nodiscard]] Tensor* atan2(Tensor* other);
    [[nodiscard]] Tensor* atan2_scalar(const Scalar& scalar);
    void atan2_inplace(Tensor* other);
    void atan2_scalar_inplace(const Scalar& scalar);

    // bool results. Both operands promote as two tensors do, scalars as well: a float32 tensor meets a double
    // scalar in float64.

    [[nodiscard]] Tensor* equal(Tensor* other);
    [[nodiscard]] Tensor* equal_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* not_equal(Tensor* other);
    [[nodiscard]] Tensor* not_equal_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* logical_and(Tensor* other);
    [[nodiscard]] Tensor* logical_and_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* logical_or(Tensor* other);
    [[nodiscard]] Tensor* logical_or_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* logical_xor(Tensor* other);
    [[nodiscard]] Tensor* logical_xor_scalar(const Scalar& scalar);

    // Real dtypes.

    [[nodiscard]] Tensor* greater(Tensor* other);
    [[nodiscard]] Tensor* greater_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* greater_equal(Tensor* other);
    [[nodiscard]] Tensor* greater_equal_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* less(Tensor* other);
    [[nodiscard]] Tensor* less_scalar(const Scalar& scalar);
    [[nodiscard]] Tensor* less_equal(Tensor* other);
    [[nodiscard]] Tensor* less_equal_scalar(const Scalar& scalar);

    // bool (but for shifts) and integers.

    [[nodiscard]] Tensor* bitwise_and(Tensor* other);
    [[nodiscard]] Tensor* bitwise_and_scalar(const Scalar& scalar);
    void bitwise_and_inplace(Tensor* other);
    void bitwise_and_scalar_inplace(const Scalar& scalar);
    [[nodiscard]] Tensor* bitwise_or(Tensor* other);
    [[nodiscard]] Tensor* bitwise_or_scalar(const Scalar& scalar);
    void bitwise_or_inplace(Tensor* other);
    void bitwise_or_scalar_inplace(const Scalar& scalar);
    [[nodiscard]] Tensor* bitwise_xor(Tensor* other);
    [[nodiscard]] Tensor* bitwise_xor_scalar(const Scalar& scalar);
    void bitwise_xor_inplace(Tensor* other);
    void bitwise_xor_scalar_inplace(const Scalar& scalar);
    /// Counts beyond the width, or negative, shift everything out, here and below.
    [[nodiscard]] Tensor* left_shift(Tensor* other);
    [[nodiscard]] Tensor* left_shift_scalar(const Scalar& scalar);
    void left_shift_inplace(Tensor* other);
    void left_shift_scalar_inplace(const Scalar& scalar);
    [[nodiscard]] Tensor* right_shift(Tensor* other);
    [[nodiscard]] Tensor* right_shift_scalar(const Scalar& scalar);
    void right_shift_inplace(Tensor* other);
    void right_shift_scalar_inplace(const Scalar& scalar);

    /// minimum(maximum(x, min), max). Integers meet integer bounds beyond their range as the nearest number.
    [[nodiscard]] Tensor* clamp(const Scalar& min, const Scalar& max);
    [[nodiscard]] Tensor* clamp_min(const Scalar& min);
    [[nodiscard]] Tensor* clamp_max(const Scalar& max);
    void clamp_inplace(const Scalar& min, const Scalar& max);
    void clamp_min_inplace(const Scalar& min);
    void clamp_max_inplace(const Scalar& max);
    /// The value where the bool mask, of this tensor's shape, is true.
    [[nodiscard]] Tensor* masked_fill(Tensor* mask, const Scalar& value);
    void masked_fill_inplace(Tensor* mask, const Scalar& value);
    /// |self - other| <= atol + rtol |other|, in double; infinities only equal themselves.
    [[nodiscard]] Tensor* is_close(Tensor* other, double rtol = 1e-5, double atol = 1e-8, bool equal_nan = false);
    /// True when every element is close.
    bool all_close(Tensor* other, double rtol = 1e-5, double atol = 1e-8, bool equal_nan = false);

    // ---- Matrix products into an existing C (tensor_math/tensor_math.cpp) ----
    // op(X) is X when its flag is 0 and its transpose (never conjugated) when it is 1. All three tensors
    // have one dtype. C may be strided (dot) and may alias an operand.

    /// C = op(A) op(B), or C += with accumulate != 0. Two axes each.
    static void dot(Tensor* A, int ta, Tensor* B, int tb, Tensor* C, int accumulate);
    /// C[b] = op(A[b]) op(B[b]). Three axes each; C contiguous.
    static void bmm(Tensor* A, int ta, Tensor* B, int tb, Tensor* C);
    /// C[i, j] = op(A[i, j]) op(B[i, j]). Four axes each; not for bool.
    static void matmul4D(Tensor* A, int ta, Tensor* B, int tb, Tensor* C);

  private:
    void construct(const Dims& shape, std::int32_t packed, const void* data, void* ndarray_handle);
    void deleteData();
    // Parts of a tensor that few ask for are made when somebody does; all others are spared the memory. Threads may
    // ask at once: one makes the part, the others wait.
    enum class Record : std::uint8_t { current, stale, in_the_making };
    template <typename Make>
    static void make_current(std::atomic<Record>& record, const Make& make);
    void give_meta_axes() const;
    void refresh_options() noexcept;
    std::shared_ptr<tensorT::Tensor_Meta> new_meta(std::int64_t size, std::int64_t dtype, std::int64_t device,
                                                   std::int64_t layout, std::int64_t offset) const;
    void take_axes(Dims&& shape, Dims&& strides) noexcept;
    void check_new_shape(const Dims& shape) const;
    Dims strides_for(const Where& at, const Dims& shape) const;
    void set_geometry(const Dims& shape, const Dims& strides, std::int64_t size);
    void assign_size(std::int64_t size);
    void adopt(const std::shared_ptr<tensorT::Tensor_storage>& storage, const Dims& shape);
    void check_inside(const Where& at, const Dims& shape, const Dims& strides, std::int64_t offset, std::int64_t dtype,
                      const tensorT::Tensor_storage* storage) const;
    void become(Dims&& shape, Dims&& strides, std::int64_t size, std::int64_t dtype, std::int64_t device,
                std::shared_ptr<tensorT::Tensor_Meta>&& meta) noexcept;

    std::int32_t storage_type_ = 0;
    void* ndarray_handles_ = nullptr;
    bool if_not_delete_ndarray_handle_ = false;
    bool if_scalar_ = false;
    [[maybe_unused]] std::uint8_t reserved_byte_ = 0;
    [[maybe_unused]] std::int64_t reserved_word_ = 0;
    std::uint8_t first_guard_ = 0;
    std::int64_t device_ = 0;
    std::uint8_t second_guard_ = 0;
    std::int32_t ndim_ = 0;
    std::int64_t size_ = 0;
    Dims shape_;
    Dims strides_;
    std::int64_t gpu_index_ = 0;
    mutable std::atomic<Record> meta_axes_{Record::current};
    std::shared_ptr<tensorT::Tensor_Meta> meta_;
    std::vector<Tensor*> csr_members_;
    std::int64_t meta_sync_ = 0;
    std::int64_t dtype_ = 0;
    std::uint8_t options_pending_ = 1;
    mutable std::atomic<Record> options_state_{Record::current};
    mutable std::shared_ptr<TensorToptions> options_;
};

/// Copies A's elements, in row-major order, into B's; both of one dtype, or converted to B's. The same
/// memory under the same view is left alone; a partial overlap is refused. A B without axes takes A's
/// element count, and its one element the last of A's.
ORNIK_API void copy_tensor(const Tensor* A, Tensor* B);

/// A view over an existing storage; the device is the storage's. Offset in elements of `dtype`.
[[nodiscard]] ORNIK_API Tensor* share_storage_tensor(const std::shared_ptr<tensorT::Tensor_storage>& storage,
                                                     const Dims& shape, const Dims& strides, std::int64_t dtype,
                                                     std::int64_t offset);
/// The same with the device given.
[[nodiscard]] ORNIK_API Tensor* view_tensor(const std::shared_ptr<tensorT::Tensor_storage>& storage, const Dims& shape,
                                            const Dims& strides, std::int64_t device, std::int64_t dtype,
                                            std::int64_t offset);
/// A view of `t` under another shape with the same elements in the same order; fails with "Can not view
/// this tensor." when the strides admit none. No extent is inferred.
[[nodiscard]] ORNIK_API Tensor* view_tensor(const Tensor* t, const Dims& shape);

}  // namespace ornik
