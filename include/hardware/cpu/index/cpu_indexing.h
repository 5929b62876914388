// cpu_indexing.h: kernels that move elements between a tensor and a selection of its positions. Internal.
//
// A selection has one entry per axis of the tensor; its elements form a tensor with one axis per entry.
// Positions have been checked against the tensor's extents.
#pragma once

#include <vector>

#include "../../../tensor/tensor.h"
#include "../../../utils/selection.h"

namespace ornik::device::cpu {

/// out[i, j, ...] = in[selection[0].at(i), selection[1].at(j), ...]; one dtype, out has the selection's shape, both
/// have any strides.
void gather_positions(const Tensor* in, const std::vector<AxisSelection>& selection, Tensor* out);

/// out[selection[0].at(i), selection[1].at(j), ...] = in[i, j, ...]; `from` names, for each axis, the elements of
/// `in` to take. No position of `selection` is repeated.
void scatter_positions(const Tensor* in, const std::vector<AxisSelection>& from,
                       const std::vector<AxisSelection>& selection, Tensor* out);

/// Gradient of gather_positions without repeated positions: out, zero before, takes grad at the positions.
void cpu_select_ndim_backward(const Tensor* grad, const std::vector<AxisSelection>& selection, Tensor* out);

/// Groups of positions along an axis: group g holds members[starts[g]] .. members[starts[g + 1] - 1].
struct AxisGroups {
    std::int64_t extent = 0;
    Dims starts;
    Dims members;

    std::int64_t count() const { return static_cast<std::int64_t>(starts.size()) - 1; }
};

/// out[o, g, i] = sum over the members k of group g, in order, of in[o, k, i]; contiguous, of one dtype. float32
/// and complex64 are added up in double precision, integers wrap, bool is the or. The bits do not depend on the
/// team size.
void sum_groups(const Tensor* in, std::int64_t outer, const AxisGroups& groups, std::int64_t inner, Tensor* out);

}  // namespace ornik::device::cpu
