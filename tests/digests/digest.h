// digest.h: digests of results: what they are made of, and the list of named rows.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ktensor/ktensor.h"

namespace ornik::digests {

/// 64 bits over dtypes, shapes and elements in row-major order (FNV-1a). All NaN count as one: their signs and payloads
/// differ between architectures.
class Digest {
  public:
    void add(const Tensor* t);
    void add(const KTensor& t);
    void add(const std::string& text);
    std::uint64_t value() const { return state_; }

  private:
    void add_bytes(const void* bytes, std::size_t count);

    std::uint64_t state_ = 0xcbf29ce484222325;
};

/// One result, or several that belong together, by name.
struct Row {
    std::string name;
    std::function<void(Digest&)> compute;
};

inline constexpr std::int64_t floating_dtypes[] = {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128};

/// "float32" and so on.
std::string dtype_text(std::int64_t dtype);

/// Numbers for operands: those that functions stumble over, then some of every magnitude, then some between `low` and
/// `high`; the same on every machine. Their NaN and infinities only where `special`.
KTensor numbers(const Dims& shape, std::int64_t dtype, double low = -2, double high = 2, bool special = false,
                std::uint64_t seed = 1);

/// Adds a result, or that it is refused.
void add_outcome(Digest& digest, const std::function<KTensor()>& compute);

std::vector<Row> element_rows();   // element-wise mathematics, casts, all layouts
std::vector<Row> call_rows();      // each public function of the tensors once
std::vector<Row> gradient_rows();  // each recorded operation and its gradients
std::vector<Row> sum_rows();       // reductions, products, convolutions, decompositions of awkward sizes
std::vector<Row> training_rows();  // a hundred steps of networks

}  // namespace ornik::digests
