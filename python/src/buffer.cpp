// buffer.cpp: a tensor's memory by the buffer protocol, without a copy.
#include <array>

#include "errors.h"
#include "ktensor/shapes.h"
#include "object.h"
#include "tensor/loan.h"
#include "tensor/tensor.h"

namespace ornik::python {

namespace {

// By dtype code, as the struct module and its extension for complex numbers write them.
constexpr std::array<const char*, dtype_count> formats{"?", "B", "b", "h", "i", "q", "f", "d", "Zf", "Zd"};
static_assert(sizeof(int) == 4 && sizeof(long long) == 8);

// What a view needs while somebody has it: a share of the elements, whatever becomes of the object's.
struct Lent {
    KTensor tensor;
    std::unique_ptr<Loan> loan;  // where others may write
    std::vector<Py_ssize_t> extents;
    std::vector<Py_ssize_t> steps;
};

bool is_fortran_order(const KTensor& t) {
    const Dims& shape = t.shape();
    std::vector<int> reversed;
    for (int axis = t.ndim() - 1; axis >= 0; --axis) {
        reversed.push_back(axis);
    }
    return permute(t.detach(), reversed).is_contiguous() || shape.empty();
}

void check_request(const KTensor& t, int flags) {
    if (t.wants_grad()) {
        raise_error(PyExc_BufferError, "a tensor that asks for gradients does not lend its memory; use detach()");
    }
    if ((flags & PyBUF_WRITABLE) != 0 && t.tensor()->getStorage()->read_only()) {
        raise_error(PyExc_BufferError, "the tensor's memory is read-only");
    }
    const bool in_c_order = t.is_contiguous();
    const bool wants_c = (flags & PyBUF_C_CONTIGUOUS) == PyBUF_C_CONTIGUOUS || (flags & PyBUF_STRIDES) != PyBUF_STRIDES;
    const bool wants_fortran = (flags & PyBUF_F_CONTIGUOUS) == PyBUF_F_CONTIGUOUS;
    const bool wants_any = (flags & PyBUF_ANY_CONTIGUOUS) == PyBUF_ANY_CONTIGUOUS;
    if ((wants_c && !in_c_order) || (wants_fortran && !is_fortran_order(t)) ||
        (wants_any && !in_c_order && !is_fortran_order(t))) {
        raise_error(PyExc_BufferError, "the tensor's elements do not stand in the order that is asked for");
    }
}

int lend(PyObject* self, Py_buffer* view, int flags) noexcept {
    view->obj = nullptr;
    return guarded(
        [&] {
            const KTensor& t = tensor_in(self);
            check_request(t, flags);
            auto lent = std::make_unique<Lent>();
            lent->tensor = t;
            const auto item = static_cast<Py_ssize_t>(dtype_item_size(t.dtype()));
            for (std::size_t i = 0; i < t.shape().size(); ++i) {
                lent->extents.push_back(static_cast<Py_ssize_t>(t.shape()[i]));
                lent->steps.push_back(static_cast<Py_ssize_t>(t.strides()[i]) * item);
            }
            const auto storage = t.tensor()->getStorage();
            if (!storage->read_only()) {
                lent->loan = std::make_unique<Loan>(storage);
            }
            view->buf = t.size() == 0 ? static_cast<void*>(lent.get()) : t.tensor()->getRawData();
            view->len = static_cast<Py_ssize_t>(t.size()) * item;
            view->readonly = storage->read_only() ? 1 : 0;
            view->itemsize = item;
            view->format = (flags & PyBUF_FORMAT) != 0
                               ? const_cast<char*>(formats.at(static_cast<std::size_t>(t.dtype())))
                               : nullptr;
            const bool with_shape = (flags & PyBUF_ND) == PyBUF_ND;
            const bool with_strides = (flags & PyBUF_STRIDES) == PyBUF_STRIDES;
            view->ndim = with_shape ? t.ndim() : 1;
            view->shape = with_shape && t.ndim() > 0 ? lent->extents.data() : nullptr;
            view->strides = with_strides && t.ndim() > 0 ? lent->steps.data() : nullptr;
            view->suboffsets = nullptr;
            view->internal = lent.release();
            view->obj = Py_NewRef(self);
            return 0;
        },
        -1);
}

void take_back(PyObject*, Py_buffer* view) noexcept { delete static_cast<Lent*>(view->internal); }

}  // namespace

PyType_Slot* buffer_slots() {
    static PyType_Slot slots[] = {
        {Py_bf_getbuffer, reinterpret_cast<void*>(lend)},
        {Py_bf_releasebuffer, reinterpret_cast<void*>(take_back)},
        {0, nullptr},
    };
    return slots;
}

}  // namespace ornik::python
