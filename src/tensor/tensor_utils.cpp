// tensor_utils.cpp: the strict axis rule.
#include "utils/error.h"
#include "utils/utils.h"

namespace ornik {

int maybe_warp_dim(int dim, int dim_post_expr) {
    if (dim_post_expr <= 0) {
        fail(where("ornik::maybe_warp_dim"), "dim_post_expr should more than zero");
    }
    if (dim < -dim_post_expr || dim > dim_post_expr - 1) {
        fail(where("ornik::maybe_warp_dim"), "if input negative dim or axis,dim should larger than ", -dim_post_expr,
             " and smaller than ", dim_post_expr - 1);
    }
    return dim < 0 ? dim + dim_post_expr : dim;
}

}  // namespace ornik
