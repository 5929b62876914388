// rows.h: the lists of operations whose gradients are checked, one for each file of rows.
#pragma once

#include "gradcheck.h"

namespace ornik::gradcheck {

std::vector<Row> index_rows();
std::vector<Row> linalg_rows();
std::vector<Row> product_rows();
std::vector<Row> join_rows();
std::vector<Row> layer_rows();
std::vector<Row> network_rows();
std::vector<Row> loss_rows();
/// Every operation's.
std::vector<Row> all_rows();

}  // namespace ornik::gradcheck
