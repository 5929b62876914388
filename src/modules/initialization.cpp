// initialization.cpp: first values of parameters.
#include "modules/initialization.h"

#include <cmath>

namespace ornik::init {

KTensor uniform(const Dims& shape, double bound, std::int64_t dtype) {
    return bound > 0 ? KTensor::rand(shape, dtype, -bound, bound) : KTensor::zeros(shape, dtype);
}

double fan_in_bound(std::int64_t fan_in) { return fan_in > 0 ? 1 / std::sqrt(static_cast<double>(fan_in)) : 0; }

double xavier_bound(std::int64_t rows, std::int64_t columns) {
    return std::sqrt(6 / static_cast<double>(rows + columns));
}

}  // namespace ornik::init
