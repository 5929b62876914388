// rows.h: the lists of operations whose gradients are checked, by what they are about.
#pragma once

#include "gradcheck.h"

namespace ornik::gradcheck {

Rows index_rows();
Rows linalg_rows();
Rows product_rows();
Rows join_rows();
Rows layer_rows();
Rows network_rows();
Rows loss_rows();

}  // namespace ornik::gradcheck
