// sparse_checks.h: the rules that the components of a sparse matrix obey.
#pragma once

#include <vector>

#include "tensor/tensor.h"

namespace ornik {

inline constexpr std::size_t sparse_members = 3;

/// Number, places, ranks and lengths of the components; not their dtypes.
void check_sparse_form(const Where& at, std::int64_t layout, const Dims& shape, const std::vector<Tensor*>& members);

/// Elements of contiguous int64 components that have the right form.
void check_sparse_entries(const Where& at, std::int64_t layout, const Dims& shape, const Tensor* index,
                          const Tensor* columns);

}  // namespace ornik
