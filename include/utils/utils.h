// utils.h: the device check and the axis rule that creation and shape code share.
#pragma once

#include <cstdint>

#include "../export.h"
#include "error.h"

namespace ornik {

/// Device codes: 0 is the CPU, 1000 .. 1008 are GPU:0 .. GPU:8. 10000 passes the device check, but no
/// tensor can be made there.
inline constexpr std::int64_t device_cpu = 0;
inline constexpr std::int64_t device_first_gpu = 1000;
inline constexpr std::int64_t device_last_gpu = 1008;
inline constexpr std::int64_t device_other = 10000;

/// True for GPU:0 .. GPU:8.
constexpr bool is_gpu_device(std::int64_t device) { return device >= device_first_gpu && device <= device_last_gpu; }

/// Accepts 0, 1000 .. 1008 and 10000; any other code is an error.
ORNIK_API void CheckDev(std::int64_t device);

/// Throws what every request for a GPU ends in, in this build: "Not compiled for GPU, set device = 0 or
/// device = None", without a location.
[[noreturn]] ORNIK_API void refuse_gpu();

namespace detail {
[[noreturn]] ORNIK_API void refuse_axis(const Where& at, int rank);
}  // namespace detail

/// `dim` as an index in [0, ndim - 1]: a negative one counts from the end. A rank of 0 counts as 1.
/// An axis outside [-ndim, ndim - 1] is an error.
inline int maybe_wrap_dim(int dim, int ndim) {
    const int rank = ndim > 1 ? ndim : 1;
    if (dim < -rank || dim > rank - 1) {
        detail::refuse_axis(where("maybe_wrap_dim", "include/utils/utils.h"), rank);
    }
    return dim < 0 ? dim + rank : dim;
}

/// The strict axis rule, used by reductions: as maybe_wrap_dim, but a rank (`dim_post_expr`) below 1 is
/// an error instead of counting as 1.
ORNIK_API int maybe_warp_dim(int dim, int dim_post_expr);

}  // namespace ornik
