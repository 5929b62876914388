// random.h: random numbers by given probabilities, and tensors filled with random numbers.
//
// Of the default generator (random/generator.h), as KTensor::randn and its kin. Results have no gradient; what is
// filled in place loses its past, and a leaf that asks for gradients can be filled only inside NoGrad.
#pragma once

#include "ktensor.h"

namespace ornik {

/// 1 with the probability in each element, else 0; of the same floating dtype.
[[nodiscard]] ORNIK_API KTensor bernoulli(const KTensor& probabilities);
/// Successes in so many trials of that probability, element by element; both broadcast and have one floating dtype.
[[nodiscard]] ORNIK_API KTensor binomial(const KTensor& trials, const KTensor& probabilities);
/// int64: `count` categories for each row of [categories] or [rows, categories] floating weights, whose sums are
/// positive. Without replacement the categories of a row are distinct.
[[nodiscard]] ORNIK_API KTensor multinomial(const KTensor& weights, std::int64_t count, bool replacement = true);

// In place; each returns its target. Floating and complex dtypes.

ORNIK_API KTensor& normal_(KTensor& x, double mean = 0, double deviation = 1);
/// Uniform in [low, high).
ORNIK_API KTensor& uniform_(KTensor& x, double low = 0, double high = 1);
/// 1 with probability p, else 0.
ORNIK_API KTensor& bernoulli_(KTensor& x, double p = 0.5);

}  // namespace ornik
