#include "utils/utils.h"

#include <stdexcept>

namespace ornik {

void CheckDev(std::int64_t device) {
    if (device == device_cpu || device == device_other || is_gpu_device(device)) {
        return;
    }
    fail(where("CheckDev"), "Not exist device: ", device, " , ", "out of range!  set device = ", device_cpu,
         " for CPU, set device >= ", device_first_gpu, " for GPU:0,...,GPU:8 .");
}

void refuse_gpu() { throw std::runtime_error("Not compiled for GPU, set device = 0 or device = None"); }

void detail::refuse_axis(const Where& at, int rank) {
    fail(at, "axis should in range of [", -rank, ",", rank - 1, "]");
}

}  // namespace ornik
