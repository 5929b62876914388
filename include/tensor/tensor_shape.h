// tensor_shape.h: views, reshaping and joining of tensors as free functions. The members of Tensor of the
// same names infer an extent of -1; these do not.
//
// Every function returns a new tensor that the caller deletes.
#pragma once

#include <vector>

#include "../export.h"
#include "tensor.h"

namespace ornik {

/// A view of `t` under another shape; fails when the strides admit none. A tensor without axes can be viewed
/// under any shape, with zero strides.
[[nodiscard]] ORNIK_API Tensor* view(const Tensor* t, const Dims& shape);
/// A view where the strides admit one, else a contiguous copy.
[[nodiscard]] ORNIK_API Tensor* reshape(const Tensor* t, const Dims& shape);
/// A contiguous copy of another shape with as many elements.
[[nodiscard]] ORNIK_API Tensor* reshape_copy(const Tensor* t, const Dims& shape);
/// A view whose axis i is axis dims[i] of `t`.
[[nodiscard]] ORNIK_API Tensor* permute(const Tensor* t, const std::vector<int>& dims);

/// A complex tensor [...] as a real view [..., 2] of its parts: real part first. float32 for complex64,
/// float64 for complex128.
[[nodiscard]] ORNIK_API Tensor* view_as_real(const Tensor* t);
/// The inverse: a float32 or float64 tensor [..., 2] as a complex view [...]. Fails when the last axis does not
/// hold two neighbours, or when the other strides or the offset are odd.
[[nodiscard]] ORNIK_API Tensor* view_as_complex(const Tensor* t);

/// `t` repeated reps[i] times along axis i. The shorter of reps and t's shape is padded with leading 1s:
/// [2, 3] tiled by [2] gives [2, 6], by [2, 1, 1] gives [2, 2, 3].
[[nodiscard]] ORNIK_API Tensor* tile(const Tensor* t, const std::vector<int>& reps);
/// Gradient of tile: grad summed over the repetitions of each element; grad has the shape of the tiled tensor,
/// the result has input_shape.
[[nodiscard]] ORNIK_API Tensor* TileGrad(const Tensor* grad, const Dims& input_shape, const std::vector<int>& reps);

/// The tensors one after the other along `axis`: same device, dtype and extents of the other axes.
[[nodiscard]] ORNIK_API Tensor* concat(const std::vector<Tensor*>& tensors, unsigned axis);
/// The tensors, two or more of one shape, along a new axis at position `axis`.
[[nodiscard]] ORNIK_API Tensor* stack(const std::vector<Tensor*>& tensors, unsigned axis);

/// Attention's merge of heads: [b, heads, n, d] to [b, n, heads * d],
/// out[b, n, h * d_count + d] = x[b, h, n, d].
[[nodiscard]] ORNIK_API Tensor* permute_12_reshape_b_n_embed_dims(const Tensor* x);
/// Its gradient: grad [b, n, heads * d] to input_shape, [b, heads, n, d].
[[nodiscard]] ORNIK_API Tensor* permute_12_reshape_b_n_embed_dims_grad(const Tensor* grad, const Dims& input_shape);

/// Attention's split into heads: [b, n, parts * heads * d] to [b, heads, n, d],
/// out[b, h, n, d] = x[b, n, (index * heads + h) * d_count + d]. One projection has parts = 1; a fused
/// projection of queries, keys and values has parts = 3, and index picks one of them.
[[nodiscard]] ORNIK_API Tensor* reshape_permute_select(const Tensor* x, int heads, int parts = 1, int index = 0);
/// Its gradient: grad [b, heads, n, d] to [b, n, parts * heads * d], zero in the parts that were not picked.
[[nodiscard]] ORNIK_API Tensor* reshape_permute_select_grad(const Tensor* grad, int parts = 1, int index = 0);

}  // namespace ornik
