// cpu_random.h: random fills and draws. Internal.
//
// Arguments have been checked and outputs are contiguous, on the CPU. What a call takes from the engine
// depends on the element count and the dtype alone: elements of single precision take half a word (32 bits)
// per real number, the low half first; everything else takes whole words, in element order.
#pragma once

#include "../../../random/lease.h"
#include "../../../tensor/tensor.h"

namespace ornik::device::cpu {

/// Floating and complex dtypes; the imaginary part of the mean is 0, and `deviation` is that of each part.
/// Deviates are made in pairs. With use_cached the first one is the generator's cached deviate, if it has one,
/// and the unused half of a last pair is cached; else that half is dropped.
void fill_normal(generator::Lease& source, Tensor* out, double mean, double deviation, bool use_cached);

/// Floating and complex dtypes: every part in [low, high), or equal to low where that is empty.
void fill_uniform(generator::Lease& source, Tensor* out, double low, double high);

/// Floating and complex dtypes: `value` with the given probability, else 0.
void fill_binary(generator::Lease& source, Tensor* out, double probability, double value);

/// A bool tensor: true where fill_binary of a tensor of the shape and of `dtype` (floating or complex) would write the
/// value, from the same words.
void fill_kept(generator::Lease& source, Tensor* out, std::int64_t dtype, double probability);

/// Integer and floating dtypes: whole numbers in [low, high).
void fill_integers(generator::Lease& source, Tensor* out, std::int64_t low, std::int64_t high);

/// Integer dtypes: the numbers below out's element count, shuffled.
void fill_permutation(generator::Lease& source, Tensor* out);

/// Floating dtypes: out[i] = 1 with probability probs[i], else 0. probs is contiguous.
void bernoulli(generator::Lease& source, const Tensor* probs, Tensor* out);

/// Floating dtypes, all contiguous: out[i] = successes in counts[i] trials of probability probs[i].
void binomial(generator::Lease& source, const Tensor* counts, const Tensor* probs, Tensor* out);

/// Are all elements of a contiguous floating tensor in [low, high] (and whole numbers)? NaN is not.
bool all_between(const Tensor* t, double low, double high, bool whole);

/// The weights of a contiguous floating [rows, categories] tensor, as multinomial needs to know them.
struct WeightSummary {
    bool valid = true;                 // finite, not negative
    bool sums_positive = true;         // and finite
    std::int64_t fewest_positive = 0;  // positive weights in the row that has fewest
};
WeightSummary summarize_weights(const Tensor* weights, std::int64_t rows);

/// out (int64, contiguous, [rows, n]): categories drawn in proportion to the row's weights.
void multinomial(generator::Lease& source, const Tensor* weights, std::int64_t rows, bool replacement, Tensor* out);

}  // namespace ornik::device::cpu
