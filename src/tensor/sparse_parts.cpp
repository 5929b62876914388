#include "tensor/sparse_parts.h"

#include <algorithm>

#include "sparse_checks.h"
#include "tensor/geometry.h"
#include "tensor/make_tensor.h"

namespace ornik {

namespace {

// What the component tensors of a layout are called in messages.
const char* name_of(std::int64_t layout, std::size_t member) {
    constexpr const char* names[] = {"row offsets", "rows", "columns", "values"};
    return names[member == 0 ? (layout == layout::csr ? 0 : 1) : member + 1];
}

const std::int64_t* numbers(const Tensor* t) { return static_cast<const std::int64_t*>(t->getRawData()); }

// The matrix' members when there are as many as there should be.
const std::vector<Tensor*>& checked_members(const Where& at, const Tensor* matrix) {
    check_sparse_form(at, matrix->Layout(), matrix->Shape(), matrix->get_csr_members());
    for (std::size_t i = 0; i < sparse_members; ++i) {
        const std::int64_t dtype = i < 2 ? dtype::int64 : matrix->Dtype();
        const Tensor* member = matrix->get_csr_members()[i];
        if (member->Dtype() != dtype) {
            fail(at, "Component of a sparse tensor, ", name_of(matrix->Layout(), i), ", should be ", dtype_name(dtype),
                 ", however it is ", dtype_name(member->Dtype()));
        }
    }
    return matrix->get_csr_members();
}

}  // namespace

void check_sparse_form(const Where& at, std::int64_t layout, const Dims& shape, const std::vector<Tensor*>& members) {
    if (shape.size() != 2 || shape[0] < 0 || shape[1] < 0) {
        fail(at, "Sparse tensor needs a shape of 2 axes, however it is ", shape);
    }
    checked_numel(at, shape);
    if (members.size() != sparse_members) {
        fail(at, "Sparse tensor needs 3 component tensors, however it has ", members.size());
    }
    for (std::size_t i = 0; i < sparse_members; ++i) {
        const char* name = name_of(layout, i);
        if (members[i] == nullptr) {
            fail(at, "Component of a sparse tensor, ", name, ", is missing.");
        }
        if (!members[i]->isCPU() || !members[i]->is_dense() ||
            (members[i]->getRawData() == nullptr && members[i]->Size() > 0)) {
            fail(at, "Component of a sparse tensor, ", name, ", should be dense and on the CPU.");
        }
        if (members[i]->ndim() != 1) {
            fail(at, "Component of a sparse tensor, ", name, ", should have 1 axis, however its shape is ",
                 members[i]->Shape());
        }
    }
    const std::int64_t length = members[0]->Shape()[0];
    const std::int64_t columns = members[1]->Shape()[0];
    const std::int64_t values = members[2]->Shape()[0];
    if (columns != values || (layout == layout::csr ? length - 1 != shape[0] : length != values)) {
        fail(at, "Components of a sparse tensor of shape ", shape, "have wrong lengths: ", name_of(layout, 0), " ",
             length, ", columns ", columns, ", values ", values);
    }
}

void check_sparse_entries(const Where& at, std::int64_t layout, const Dims& shape, const Tensor* index,
                          const Tensor* columns) {
    const std::int64_t entries = columns->Shape()[0];
    const device::cpu::SparseFault fault =
        layout == layout::csr
            ? device::cpu::find_csr_fault(shape[0], shape[1], entries, numbers(index), numbers(columns))
            : device::cpu::find_coo_fault(shape[0], shape[1], entries, numbers(index), numbers(columns));
    const auto found = [&](const Tensor* t) { return numbers(t)[fault.position]; };
    using Kind = device::cpu::SparseFault::Kind;
    switch (fault.kind) {
        case Kind::none:
            return;
        case Kind::row_range:
            fail(ErrorKind::index, at, "Row of entry ", fault.position, " of a sparse tensor is ", found(index),
                 ", out of range for shape ", shape);
        case Kind::column_range:
            fail(ErrorKind::index, at, "Column of entry ", fault.position, " of a sparse tensor is ", found(columns),
                 ", out of range for shape ", shape);
        case Kind::order:
            fail(at, "Entry ", fault.position,
                 " of a sparse tensor is not behind the one before it: entries should be sorted, without duplicates.");
        case Kind::first_offset:
            fail(at, "Row offsets of a sparse tensor should start with 0, however they start with ", found(index));
        case Kind::offset_order:
            fail(at, "Row offset ", fault.position, " of a sparse tensor is ", found(index),
                 ", below the one before it.");
        case Kind::last_offset:
            fail(at, "Row offsets of a sparse tensor should end with the number of entries, ", entries,
                 ", however they end with ", found(index));
    }
}

SparseParts::SparseParts(const Where& at, const Tensor* matrix)
    : index_(Borrowed::contiguous(checked_members(at, matrix)[0])),
      columns_(Borrowed::contiguous(matrix->get_csr_members()[1])),
      values_(Borrowed::contiguous(matrix->get_csr_members()[2])) {
    const Dims& shape = matrix->Shape();
    check_sparse_entries(at, matrix->Layout(), shape, index_.get(), columns_.get());
    if (matrix->is_coo()) {
        own_offsets_.resize(static_cast<std::size_t>(shape[0] + 1));
        device::cpu::row_offsets(shape[0], index_->Size(), numbers(index_.get()), own_offsets_.data());
    }
    rows_ = {shape[0], shape[1], matrix->is_coo() ? own_offsets_.data() : numbers(index_.get()),
             numbers(columns_.get()), values_->getRawData()};
}

std::unique_ptr<Tensor> dense_from_sparse(const Where& at, const Tensor* matrix) {
    const SparseParts parts(at, matrix);
    std::unique_ptr<Tensor> result = make_tensor(matrix->Shape(), matrix->Dtype());
    device::cpu::scatter_entries(parts.rows(), result.get());
    return result;
}

std::unique_ptr<Tensor> assemble_sparse(std::int64_t layout, const Dims& shape, const std::int64_t* offsets,
                                        std::unique_ptr<Tensor> columns, std::unique_ptr<Tensor> values) {
    const std::int64_t dtype = values->Dtype();
    const bool csr = layout == layout::csr;
    std::unique_ptr<Tensor> index = make_tensor({csr ? shape[0] + 1 : columns->Size()}, dtype::int64);
    auto* items = static_cast<std::int64_t*>(index->getRawData());
    if (csr) {
        std::copy(offsets, offsets + shape[0] + 1, items);
    } else {
        device::cpu::row_indices(shape[0], offsets, items);
    }
    std::vector<std::unique_ptr<Tensor>> members;
    members.push_back(std::move(index));
    members.push_back(std::move(columns));
    members.push_back(std::move(values));
    auto result = std::make_unique<Tensor>();
    result->init_sparse_tensor(shape, dtype, device_cpu, layout, std::move(members));
    return result;
}

}  // namespace ornik
