// Each recorded operation, its value and its gradients, in every floating dtype that it takes.
#include "digest.h"
#include "ktensor/rows.h"
#include "random/generator.h"

namespace ornik::digests {

namespace {

void add_results(Digest& digest, const gradcheck::Row& row, std::int64_t dtype) {
    set_random_seed(1);
    std::vector<KTensor> operands;
    for (const Dims& shape : row.shapes) {
        operands.push_back(
            numbers(shape, dtype, row.terms.low, row.terms.high, false, operands.size()).requires_grad());
    }
    try {
        const KTensor y = row.function(operands);
        digest.add(y);
        const KTensor seed = numbers(y.shape(), y.dtype(), -1, 1, false, 77);
        for (const KTensor& gradient : grad({y}, operands, {seed}, {.allow_unused = true})) {
            digest.add(gradient);
        }
    } catch (const Error&) {
        // Some rows mix their operands with numbers of float64.
        digest.add("refused");
    }
}

}  // namespace

std::vector<Row> gradient_rows() {
    std::vector<Row> rows;
    std::map<std::string, int> taken;
    for (const gradcheck::Row& row : gradcheck::all_rows()) {
        const std::string name = autograd::info_of(row.op).name;
        rows.push_back({"gradients/" + name + "/" + std::to_string(++taken[name]), [row](Digest& digest) {
                            add_results(digest, row, dtype::float32);
                            add_results(digest, row, dtype::float64);
                            if (row.terms.complex) {
                                add_results(digest, row, dtype::complex64);
                                add_results(digest, row, dtype::complex128);
                            }
                        }});
    }
    return rows;
}

}  // namespace ornik::digests
