// Element-wise mathematics over every dtype and layout, and the casts from each dtype to each other.
#include "descriptors/element_operations.h"
#include "digest.h"
#include "hostile/tensor_headers.h"
#include "ktensor/arithmetic.h"
#include "ktensor/indexing.h"
#include "ktensor/shapes.h"

namespace ornik::digests {

namespace {

// As long as a few vectors of any width and a rest, and longer than what one thread takes.
constexpr std::int64_t lengths[] = {1, 7, 61, 40'007};

// Row-major of awkward lengths, transposed, every other element, a repeated row.
std::vector<KTensor> layouts(std::int64_t dtype, std::uint64_t seed) {
    const auto make = [&](const Dims& shape) { return numbers(shape, dtype, -2, 2, true, seed); };
    std::vector<KTensor> all;
    for (const std::int64_t length : lengths) {
        all.push_back(make({length}));
    }
    all.push_back(permute(make({5, 3, 17}), {2, 0, 1}));
    all.push_back(slice(make({41, 9}), 1, Slice(1, 8, 2)));
    all.push_back(broadcast_to(make({1, 23}), {4, 23}));
    return all;
}

using Unary = Tensor* (*)(Tensor*);
using Pair = KTensor (*)(const KTensor&, const KTensor&);

void add_results(Digest& digest, std::int64_t dtype, Unary function) {
    for (const KTensor& x : layouts(dtype, 1)) {
        add_outcome(digest, [&] { return KTensor(std::unique_ptr<Tensor>(function(x.tensor()))); });
    }
}

void add_results(Digest& digest, std::int64_t dtype, Pair function) {
    const std::vector<KTensor> left = layouts(dtype, 1);
    const std::vector<KTensor> right = layouts(dtype, 2);
    for (std::size_t i = 0; i < left.size(); ++i) {
        // Other numbers beside the special ones.
        const KTensor turned = flip(right[i], {0});
        for (const KTensor& y : {right[i], turned}) {
            add_outcome(digest, [&] { return function(left[i], y); });
        }
    }
}

// A row for each floating dtype, and one for all others.
template <typename Function>
void add_rows(std::vector<Row>& rows, const std::string& name, Function function) {
    for (const std::int64_t dtype : floating_dtypes) {
        rows.push_back({"elements/" + name + "/" + dtype_text(dtype),
                        [=](Digest& digest) { add_results(digest, dtype, function); }});
    }
    rows.push_back({"elements/" + name + "/integers", [=](Digest& digest) {
                        for (std::int64_t dtype = 0; dtype < floating_dtypes[0]; ++dtype) {
                            add_results(digest, dtype, function);
                        }
                    }});
}

}  // namespace

std::vector<Row> element_rows() {
    std::vector<Row> rows;
#define UNARY(name, ...) add_rows(rows, #name, static_cast<Unary>([](Tensor* x) -> Tensor* { return x->name(); }));
#define BINARY(name, ...)                                                               \
    add_rows(rows, #name, static_cast<Pair>([](const KTensor& x, const KTensor& y) {    \
                 return KTensor(std::unique_ptr<Tensor>(x.tensor()->name(y.tensor()))); \
             }));
    ORNIK_UNARY_OPERATIONS(UNARY)
    ORNIK_BINARY_OPERATIONS(BINARY)
    add_rows(rows, "add", static_cast<Pair>(ornik::add));
    add_rows(rows, "sub", static_cast<Pair>(ornik::sub));
    add_rows(rows, "mul", static_cast<Pair>(ornik::mul));
    add_rows(rows, "div", static_cast<Pair>(ornik::div));
    for (std::int64_t from = 0; from < dtype_count; ++from) {
        rows.push_back({"elements/astype/" + dtype_text(from), [=](Digest& digest) {
                            for (const KTensor& x : layouts(from, 3)) {
                                for (std::int64_t to = 0; to < dtype_count; ++to) {
                                    digest.add(astype(x, to));
                                }
                            }
                        }});
    }
    return rows;
}

}  // namespace ornik::digests
