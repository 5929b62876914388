// gradients_test.cpp: every operation that records gradients, against differences.
#include <cstring>
#include <set>

#include "rows.h"

namespace ornik {
namespace {

using gradcheck::one;
using gradcheck::Op;
using gradcheck::real_only;
using gradcheck::Row;
using gradcheck::Rows;
using gradcheck::Tensors;
using gradcheck::two;

const Dims s23{2, 3};

// Every function of one number, inside its domain.
Rows element_rows() {
    struct Domain {
        const char* names;
        double low, high;
    };
    static constexpr Domain domains[] = {
        {" log log2 log10 sqrt ", 0.2, 2},
        {" rsqrt reciprocal abs angle ", 0.3, 2},
        {" log1p ", -0.6, 2},
        {" asin acos atan asinh atanh ", -0.8, 0.8},
        {" tan tanh ", -1, 1},
        {" acosh ", 1.2, 2},
    };
    Rows rows;
    const auto add = [&](Op op, operations::Unary operation, const gradcheck::Function& function) {
        const operations::Row& row = operations::row_of(operation);
        rows.add(op, {s23}, {row.name, operations::accepts(row, dtype::complex128)}, function);
        for (const Domain& domain : domains) {
            if (std::strstr(domain.names, (std::string(" ") + row.name + " ").c_str()) != nullptr) {
                rows.back().terms.low = domain.low;
                rows.back().terms.high = domain.high;
            }
        }
    };
#define ROW(name, ...) add(Op::name, operations::Unary::name, one<name>);
    ORNIK_DIFFERENTIABLE_OPERATIONS(ROW)
#undef ROW
    rows.add(Op::abs, {s23}, {"below 0", true, -2, -0.3}, one<abs>);
    return rows;
}

Rows pair_rows() {
    Rows rows;
    // Either operand broadcast, or both of one shape.
    const auto add_pair = [&](Op op, const gradcheck::Terms& terms, const gradcheck::Function& function) {
        rows.add(op, {s23, {3}}, terms, function);
        rows.add(op, {{2, 1}, {4, 2, 3}}, terms, function);
        rows.add(op, {s23, s23}, terms, function);
    };
    add_pair(Op::add, {}, two<add>);
    add_pair(Op::sub, {}, two<sub>);
    add_pair(Op::mul, {}, two<mul>);
    add_pair(Op::div, {"", true, 0.4, 2}, two<div>);
    add_pair(Op::pow, {"", true, 0.4, 2}, two<pow>);
    add_pair(Op::fmod, {"", false, 0.6, 3}, two<fmod>);
    add_pair(Op::remainder, {"", false, 0.6, 3}, [](const Tensors& x) { return remainder(x[0], neg(x[1])); });
    add_pair(Op::maximum, real_only, two<maximum>);
    add_pair(Op::minimum, real_only, two<minimum>);
    add_pair(Op::atan2, {"", false, 0.3, 2}, two<atan2>);
    add_pair(Op::hypot, real_only, two<hypot>);
    add_pair(Op::logaddexp, real_only, two<logaddexp>);
    const KTensor signs({1.0, -1.0, -0.0});
    rows.add(Op::copysign, {s23}, real_only, [=](const Tensors& x) { return copysign(x[0], signs); });
    const KTensor chosen({true, false, true});
    add_pair(Op::where, {}, [=](const Tensors& x) { return where(chosen, x[0], x[1]); });
    rows.add(Op::add_scalar, {s23}, [](const Tensors& x) { return x[0] + 2.5; });
    rows.add(Op::add_scalar, {s23}, [](const Tensors& x) { return x[0] - 2.5; });
    rows.add(Op::mul_scalar, {s23}, [](const Tensors& x) { return x[0] * std::complex<double>(2, 1); });
    rows.add(Op::div_scalar, {s23}, [](const Tensors& x) { return x[0] / 3.0; });
    rows.add(Op::sub, {s23}, [](const Tensors& x) { return 1.5 - x[0]; });
    rows.add(Op::clamp, {s23}, real_only, [](const Tensors& x) { return clamp(x[0], -0.7, 0.4); });
    rows.add(Op::clamp_min, {s23}, real_only, [](const Tensors& x) { return clamp_min(x[0], 0.1); });
    rows.add(Op::clamp_max, {s23}, real_only, [](const Tensors& x) { return clamp_max(x[0], 0.1); });
    return rows;
}

Rows shape_rows() {
    Rows rows;
    rows.add(Op::astype, {s23}, real_only, [](const Tensors& x) { return astype(x[0], dtype::complex128); });
    rows.add(Op::clone, {s23}, one<clone>);
    rows.add(Op::broadcast_to, {{2, 1}}, [](const Tensors& x) { return broadcast_to(x[0], {3, 2, 4}); });
    rows.add(Op::sum_to_shape, {{3, 2, 4}}, [](const Tensors& x) { return sum_to_shape(x[0], {2, 1}); });
    rows.add(Op::reshape, {{2, 3, 2}}, [](const Tensors& x) { return reshape(x[0], {3, -1}); });
    rows.add(Op::permute, {{2, 3, 2}}, [](const Tensors& x) { return permute(x[0], {1, 2, 0}); });
    rows.add(Op::squeeze, {{2, 1, 3}}, [](const Tensors& x) { return squeeze(x[0]); });
    rows.add(Op::unsqueeze, {s23}, [](const Tensors& x) { return unsqueeze(x[0], -2); });
    rows.add(Op::flip, {s23}, [](const Tensors& x) { return flip(x[0], {1, 0}); });
    return rows;
}

Rows reduction_rows() {
    Rows rows;
    using Reduction = KTensor (*)(const KTensor&, const std::vector<int>&, bool);
    const auto add = [&](Op op, const gradcheck::Terms& terms, Reduction reduction) {
        const std::pair<std::vector<int>, bool> ways[] = {{{}, false}, {{1}, true}, {{-1, 0}, false}};
        for (const auto& way : ways) {
            rows.add(op, {{2, 3, 2}}, terms, [=](const Tensors& x) { return reduction(x[0], way.first, way.second); });
        }
    };
    add(Op::sum, {}, sum);
    add(Op::mean, {}, mean);
    add(Op::prod, {"", true, 0.5, 1.5}, prod);
    add(Op::prod, {"a zero", true, 0.5, 1.5}, [](const KTensor& x, const std::vector<int>& axes, bool keep) {
        KTensor one_zero = KTensor::ones(x.shape(), dtype::float64);
        gradcheck::values(one_zero)[5] = 0;
        return prod(x * one_zero, axes, keep);
    });
    add(Op::l2_norm, {}, l2_norm);
    add(Op::logsumexp, real_only, logsumexp);
    add(Op::max, real_only, max);
    add(Op::min, real_only, min);
    add(Op::median, real_only, median);
    add(Op::var, real_only, [](const KTensor& x, const auto& axes, bool keep) { return var(x, axes, keep, 1); });
    add(Op::std_dev, real_only,
        [](const KTensor& x, const auto& axes, bool keep) { return std_dev(x, axes, keep, 0); });
    rows.add(Op::trace, {{2, 3, 2}}, [](const Tensors& x) { return trace(x[0], 1, 0, 1); });
    rows.add(Op::cumsum, {{2, 4}}, [](const Tensors& x) { return cumsum(x[0], -1); });
    rows.add(Op::cumprod, {{2, 4}}, [](const Tensors& x) { return cumprod(x[0], 1); });
    rows.add(Op::softmax, {{2, 4}}, real_only, [](const Tensors& x) { return softmax(x[0], 0); });
    rows.add(Op::log_softmax, {{2, 4}}, real_only, [](const Tensors& x) { return log_softmax(x[0], -1); });
    rows.add(Op::sort, {{2, 4}}, real_only, [](const Tensors& x) { return sort(x[0], -1, true).first; });
    rows.add(Op::topk, {{4, 2}}, real_only, [](const Tensors& x) { return topk(x[0], 2, 0).first; });
    return rows;
}

Rows all_rows() {
    Rows rows;
    for (Rows (*part)() : {element_rows, pair_rows, shape_rows, reduction_rows, gradcheck::index_rows,
                           gradcheck::linalg_rows, gradcheck::product_rows, gradcheck::join_rows, gradcheck::layer_rows,
                           gradcheck::network_rows, gradcheck::loss_rows}) {
        for (Row& row : part()) {
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

TEST(Gradients, Elements) { std::ranges::for_each(element_rows(), gradcheck::check); }
TEST(Gradients, Pairs) { std::ranges::for_each(pair_rows(), gradcheck::check); }
TEST(Gradients, Shapes) { std::ranges::for_each(shape_rows(), gradcheck::check); }
TEST(Gradients, Reductions) { std::ranges::for_each(reduction_rows(), gradcheck::check); }

TEST(Gradients, EveryOperationHasARow) {
    std::set<Op> checked{Op::custom, Op::checkpoint};  // Tested with the graph.
    for (const Row& row : all_rows()) {
        checked.insert(row.op);
    }
    for (std::uint16_t op = 0; op < static_cast<std::uint16_t>(Op::count); ++op) {
        EXPECT_TRUE(checked.contains(static_cast<Op>(op))) << info_of(static_cast<Op>(op)).name;
    }
}

}  // namespace
}  // namespace ornik
