// Where many numbers become one: reductions, products, convolutions, normalizations, decompositions, transforms.
#include "digest.h"
#include "ktensor/activations.h"
#include "ktensor/arithmetic.h"
#include "ktensor/autograd.h"
#include "ktensor/convolutions.h"
#include "ktensor/elements.h"
#include "ktensor/fft.h"
#include "ktensor/linalg.h"
#include "ktensor/networks.h"
#include "ktensor/normalizations.h"
#include "ktensor/random.h"
#include "ktensor/reductions.h"
#include "ktensor/shapes.h"
#include "random/generator.h"

namespace ornik::digests {

namespace {

using Tensors = std::vector<KTensor>;
using Compute = std::function<Tensors(const Tensors&)>;

std::string text_of(const Dims& shape) {
    std::string text;
    for (const std::int64_t extent : shape) {
        text += (text.empty() ? "" : "x") + std::to_string(extent);
    }
    return text;
}

// One row for each floating dtype: the results and, of those that record them, the gradients by all operands.
void add_rows(std::vector<Row>& rows, const std::string& name, const std::vector<Dims>& shapes,
              const Compute& compute) {
    for (const std::int64_t dtype : floating_dtypes) {
        rows.push_back(
            {"sums/" + name + "/" + dtype_text(dtype), [=](Digest& digest) {
                 Tensors operands;
                 for (const Dims& shape : shapes) {
                     operands.push_back(numbers(shape, dtype, -1, 1, false, operands.size()).requires_grad());
                 }
                 try {
                     for (const KTensor& y : compute(operands)) {
                         digest.add(y);
                         if (y.wants_grad()) {
                             const KTensor seed = numbers(y.shape(), y.dtype(), -1, 1, false, 99);
                             for (const KTensor& gradient :
                                  grad({y}, operands, {seed}, {.retain_graph = true, .allow_unused = true})) {
                                 digest.add(gradient);
                             }
                         }
                     }
                 } catch (const Error&) {
                     digest.add("refused");
                 }
             }});
    }
}

void add_reductions(std::vector<Row>& rows) {
    struct Case {
        Dims shape;
        std::vector<int> axes;
    };
    for (const Case& c : {Case{{1}, {}}, Case{{1023}, {}}, Case{{100'003}, {}}, Case{{33, 70}, {0}},
                          Case{{33, 70}, {1}}, Case{{5, 300, 7}, {1}}, Case{{4, 9, 65}, {0, 2}}}) {
        add_rows(rows,
                 "reductions/" + text_of(c.shape) + "/" +
                     (c.axes.empty() ? "all" : text_of(Dims(c.axes.begin(), c.axes.end()))),
                 {c.shape}, [axes = c.axes](const Tensors& x) {
                     Tensors all{sum(x[0], axes), mean(x[0], axes), prod(x[0], axes), l2_norm(x[0], axes)};
                     if (!x[0].is_complex()) {
                         for (const KTensor& y :
                              {var(x[0], axes), logsumexp(x[0], axes), max(x[0], axes), median(x[0], axes),
                               softmax(x[0]), log_softmax(x[0], 0), cumsum(x[0], -1), sort(x[0], 0).first}) {
                             all.push_back(y);
                         }
                     }
                     return all;
                 });
    }
}

void add_products(std::vector<Row>& rows) {
    struct Size {
        std::int64_t m, k, n;
    };
    for (const Size s : {Size{1, 1, 1}, Size{3, 5, 2}, Size{7, 257, 9}, Size{1, 700, 130}, Size{5, 64, 96},
                         Size{65, 513, 70}, Size{130, 300, 1}, Size{97, 256, 193}}) {
        add_rows(rows, "products/" + text_of({s.m, s.k, s.n}), {{s.m, s.k}, {s.k, s.n}, {s.m, s.n}},
                 [](const Tensors& x) {
                     return Tensors{matmul(x[0], x[1]), matmul(permute(x[1], {1, 0}), permute(x[0], {1, 0})),
                                    matmul(permute(x[0], {1, 0}), x[2])};
                 });
    }
    add_rows(rows, "products/batches", {{3, 1, 17, 33}, {2, 33, 19}},
             [](const Tensors& x) { return Tensors{matmul(x[0], x[1])}; });
    add_rows(rows, "products/linear", {{6, 40, 130}, {50, 130}, {50}},
             [](const Tensors& x) { return Tensors{linear(x[0], x[1], x[2])}; });
}

void add_convolutions(std::vector<Row>& rows) {
    struct Case {
        Dims input, weight;
        nn::ConvParameters parameters;
    };
    using Padding = std::array<PaddingPair, 2>;
    const Padding one{PaddingPair{1, 1}, PaddingPair{1, 1}};
    const Case cases[] = {
        {{2, 3, 9, 11}, {5, 3, 3, 3}, {.padding = one}},
        {{1, 40, 14, 14}, {33, 40, 3, 3}, {.padding = one}},
        {{2, 70, 7, 7}, {24, 70, 1, 1}, {}},
        {{1, 8, 30, 29}, {20, 8, 3, 3}, {.stride = {2, 2}, .padding = one}},
        {{1, 3, 40, 40}, {16, 3, 7, 7}, {.stride = {2, 2}, .padding = {PaddingPair{3, 3}, PaddingPair{3, 3}}}},
        {{2, 24, 15, 17}, {24, 1, 3, 3}, {.padding = one, .groups = 24}},
        {{1, 16, 28, 28}, {16, 1, 3, 3}, {.stride = {2, 2}, .padding = one, .groups = 16}},
        {{1, 12, 20, 20},
         {18, 4, 3, 5},
         {.padding = {PaddingPair{2, 1}, PaddingPair{0, 3}}, .dilation = {2, 1}, .groups = 3}},
        {{3, 6, 50}, {9, 6, 4}, {.stride = {3}}},
    };
    for (const Case& c : cases) {
        add_rows(rows, "convolutions/" + text_of(c.input) + "/" + text_of(c.weight), {c.input, c.weight, {c.weight[0]}},
                 [parameters = c.parameters](const Tensors& x) {
                     return Tensors{convolution(x[0], x[1], x[2], parameters)};
                 });
    }
}

void add_networks(std::vector<Row>& rows) {
    add_rows(rows, "attention", {{2, 3, 37, 20}, {2, 3, 41, 20}, {2, 3, 41, 20}},
             [](const Tensors& x) { return Tensors{scaled_dot_product_attention(x[0], x[1], x[2])}; });
    add_rows(rows, "attention/causal", {{1, 2, 300, 16}, {1, 2, 300, 16}, {1, 2, 300, 16}}, [](const Tensors& x) {
        return Tensors{scaled_dot_product_attention(x[0], x[1], x[2], {.causal = true})};
    });
    add_rows(rows, "normalizations", {{6, 8, 13, 5}, {8}, {8}, {13, 5}, {13, 5}}, [](const Tensors& x) {
        return Tensors{batch_norm(x[0], KTensor(), KTensor(), x[1], x[2], true), group_norm(x[0], 4, x[1], x[2]),
                       layer_norm(x[0], {13, 5}, x[3], x[4])};
    });
}

void add_decompositions(std::vector<Row>& rows) {
    for (const std::int64_t n : {1, 2, 5, 16, 40, 130}) {
        add_rows(rows, "decompositions/" + std::to_string(n), {{2, n, n}}, [](const Tensors& x) {
            const KTensor adjoint = conj(permute(x[0], {0, 2, 1}));
            const KTensor unit = KTensor::eye(x[0].size(-1), x[0].dtype());
            const KTensor definite = matmul(x[0], adjoint) + unit;
            const EigenPairs pairs = eigh(x[0] + adjoint);
            const SingularValues singular = svd(x[0]);
            const QrFactors factors = qr(x[0]);
            const EigenPairs general = eig(x[0]);
            return Tensors{cholesky(definite),
                           pairs.values,
                           pairs.vectors,
                           inv(definite),
                           det(x[0]),
                           solve(definite, x[0]),
                           singular.u,
                           singular.s,
                           singular.vh,
                           factors.q,
                           factors.r,
                           pinv(x[0]),
                           general.values.detach(),
                           general.vectors.detach()};
        });
    }
    for (const std::int64_t n : {1, 8, 12, 37, 128, 1009}) {
        add_rows(rows, "transforms/" + std::to_string(n), {{3, n}}, [](const Tensors& x) {
            return x[0].is_complex() ? Tensors{fft(x[0]), ifft(x[0])} : Tensors{rfft(x[0]), fft(x[0])};
        });
    }
}

void add_random(std::vector<Row>& rows) {
    for (const std::int64_t dtype : {dtype::float32, dtype::float64}) {
        rows.push_back({"sums/random/" + dtype_text(dtype), [dtype](Digest& digest) {
                            set_random_seed(1);
                            digest.add(KTensor::rand({5003}, dtype));
                            digest.add(KTensor::randn({5003}, dtype));
                            digest.add(KTensor::randint(-7, 1000, {5003}));
                            digest.add(KTensor::randperm(1001));
                            const KTensor p = KTensor::rand({40}, dtype);
                            digest.add(bernoulli(p));
                            digest.add(binomial(KTensor::full({40}, 9.0, dtype), p));
                            digest.add(multinomial(p, 20));
                        }});
    }
}

}  // namespace

std::vector<Row> sum_rows() {
    std::vector<Row> rows;
    add_reductions(rows);
    add_products(rows);
    add_convolutions(rows);
    add_networks(rows);
    add_decompositions(rows);
    add_random(rows);
    return rows;
}

}  // namespace ornik::digests
