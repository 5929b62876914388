// gradients_test.cpp: every operation that records gradients, against differences.
#include <set>

#include "rows.h"

namespace ornik {
namespace {

using gradcheck::Op;
using gradcheck::Row;
using gradcheck::Tensors;

const Dims s23{2, 3};

// A function of one operand.
template <KTensor (*function)(const KTensor&)>
KTensor one(const Tensors& x) {
    return function(x[0]);
}

template <KTensor (*function)(const KTensor&, const KTensor&)>
KTensor two(const Tensors& x) {
    return function(x[0], x[1]);
}

std::vector<Row> element_rows() {
    std::vector<Row> rows;
    const auto add_row = [&](Op op, gradcheck::Function function, bool complex, double low = -1.5, double high = 1.5) {
        rows.push_back({op, {s23}, std::move(function), complex, low, high});
    };
    add_row(Op::exp, one<exp>, true);
    add_row(Op::exp2, one<exp2>, true);
    add_row(Op::expm1, one<expm1>, true);
    add_row(Op::log, one<log>, true, 0.2, 2);
    add_row(Op::log2, one<log2>, true, 0.2, 2);
    add_row(Op::log10, one<log10>, true, 0.2, 2);
    add_row(Op::log1p, one<log1p>, true, -0.6, 2);
    add_row(Op::sqrt, one<sqrt>, true, 0.2, 2);
    add_row(Op::rsqrt, one<rsqrt>, true, 0.3, 2);
    add_row(Op::reciprocal, one<reciprocal>, true, 0.3, 2);
    add_row(Op::sin, one<sin>, true);
    add_row(Op::cos, one<cos>, true);
    add_row(Op::tan, one<tan>, true, -1, 1);
    add_row(Op::asin, one<asin>, true, -0.8, 0.8);
    add_row(Op::acos, one<acos>, true, -0.8, 0.8);
    add_row(Op::atan, one<atan>, true, -0.8, 0.8);
    add_row(Op::sinh, one<sinh>, true);
    add_row(Op::cosh, one<cosh>, true);
    add_row(Op::tanh, one<tanh>, true, -1, 1);
    add_row(Op::asinh, one<asinh>, true, -0.8, 0.8);
    add_row(Op::acosh, one<acosh>, true, 1.2, 2);
    add_row(Op::atanh, one<atanh>, true, -0.8, 0.8);
    add_row(Op::sigmoid, one<sigmoid>, true);
    add_row(Op::logsigmoid, one<logsigmoid>, false);
    add_row(Op::softplus, one<softplus>, false);
    add_row(Op::silu, one<silu>, false);
    add_row(Op::gelu, one<gelu>, false);
    add_row(Op::erf, one<erf>, false);
    add_row(Op::neg, one<neg>, true);
    add_row(Op::sqr, one<sqr>, true);
    add_row(Op::abs, one<abs>, true, 0.3, 2);
    add_row(Op::abs, one<abs>, true, -2, -0.3);
    add_row(Op::conj, one<conj>, true);
    add_row(Op::real, one<real>, true);
    add_row(Op::imag, one<imag>, true);
    add_row(Op::angle, one<angle>, true, 0.3, 2);
    return rows;
}

std::vector<Row> pair_rows() {
    std::vector<Row> rows;
    // Either operand broadcast, or both of one shape.
    const auto add_row = [&](Op op, gradcheck::Function function, bool complex, double low = -1.5, double high = 1.5) {
        rows.push_back({op, {s23, {3}}, function, complex, low, high, "right broadcast"});
        rows.push_back({op, {{2, 1}, {4, 2, 3}}, function, complex, low, high, "left broadcast"});
        rows.push_back({op, {s23, s23}, function, complex, low, high});
    };
    add_row(Op::add, two<add>, true);
    add_row(Op::sub, two<sub>, true);
    add_row(Op::mul, two<mul>, true);
    add_row(Op::div, two<div>, true, 0.4, 2);
    add_row(Op::pow, two<pow>, true, 0.4, 2);
    add_row(Op::fmod, two<fmod>, false, 0.6, 3);
    add_row(
        Op::remainder, [](const Tensors& x) { return remainder(x[0], neg(x[1])); }, false, 0.6, 3);
    add_row(Op::maximum, two<maximum>, false);
    add_row(Op::minimum, two<minimum>, false);
    add_row(Op::atan2, two<atan2>, false, 0.3, 2);
    add_row(Op::hypot, two<hypot>, false);
    add_row(Op::logaddexp, two<logaddexp>, false);
    rows.push_back({Op::copysign, {s23}, [](const Tensors& x) { return copysign(x[0], KTensor({1.0, -1.0, -0.0})); }});
    add_row(
        Op::where,
        [](const Tensors& x) {
            return where(KTensor({true, false, true}), x[0], x[1]);
        },
        true);
    const auto add_scalar_row = [&](Op op, gradcheck::Function function, bool complex) {
        rows.push_back({op, {s23}, std::move(function), complex});
    };
    add_scalar_row(
        Op::add_scalar, [](const Tensors& x) { return x[0] + 2.5; }, true);
    add_scalar_row(
        Op::add_scalar, [](const Tensors& x) { return x[0] - 2.5; }, true);
    add_scalar_row(
        Op::mul_scalar, [](const Tensors& x) { return x[0] * std::complex<double>(2, 1); }, true);
    rows.back().op = Op::mul_scalar;
    add_scalar_row(
        Op::div_scalar, [](const Tensors& x) { return x[0] / 3.0; }, true);
    add_scalar_row(
        Op::sub, [](const Tensors& x) { return 1.5 - x[0]; }, true);
    add_scalar_row(
        Op::clamp, [](const Tensors& x) { return clamp(x[0], -0.7, 0.4); }, false);
    add_scalar_row(
        Op::clamp_min, [](const Tensors& x) { return clamp_min(x[0], 0.1); }, false);
    add_scalar_row(
        Op::clamp_max, [](const Tensors& x) { return clamp_max(x[0], 0.1); }, false);
    return rows;
}

std::vector<Row> shape_rows() {
    return {
        {Op::astype, {s23}, [](const Tensors& x) { return astype(x[0], dtype::complex128); }},
        {Op::clone, {s23}, one<clone>, true},
        {Op::broadcast_to,
         {{2, 1}},
         [](const Tensors& x) {
             return broadcast_to(x[0], {3, 2, 4});
         },
         true},
        {Op::sum_to_shape,
         {{3, 2, 4}},
         [](const Tensors& x) {
             return sum_to_shape(x[0], {2, 1});
         },
         true},
        {Op::reshape,
         {{2, 3, 2}},
         [](const Tensors& x) {
             return reshape(x[0], {3, -1});
         },
         true},
        {Op::permute,
         {{2, 3, 2}},
         [](const Tensors& x) {
             return permute(x[0], {1, 2, 0});
         },
         true},
        {Op::squeeze, {{2, 1, 3}}, [](const Tensors& x) { return squeeze(x[0]); }, true},
        {Op::unsqueeze, {s23}, [](const Tensors& x) { return unsqueeze(x[0], -2); }, true},
        {Op::flip,
         {s23},
         [](const Tensors& x) {
             return flip(x[0], {1, 0});
         },
         true},
    };
}

std::vector<Row> reduction_rows() {
    std::vector<Row> rows;
    using Reduction = std::function<KTensor(const KTensor&, const std::vector<int>&, bool)>;
    const auto add_row = [&](Op op, const Reduction& reduction, bool complex, double low = -1.5, double high = 1.5) {
        const std::vector<std::pair<std::vector<int>, bool>> ways{{{}, false}, {{1}, true}, {{-1, 0}, false}};
        for (const auto& [axes, keep] : ways) {
            rows.push_back(
                {op,
                 {{2, 3, 2}},
                 [reduction, axes = axes, keep = keep](const Tensors& x) { return reduction(x[0], axes, keep); },
                 complex,
                 low,
                 high,
                 std::to_string(axes.size()) + " axes"});
        }
    };
    add_row(Op::sum, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(sum), true);
    add_row(Op::mean, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(mean), true);
    add_row(Op::prod, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(prod), true, 0.5, 1.5);
    add_row(
        Op::prod,
        [](const KTensor& x, const std::vector<int>& axes, bool keep) {
            KTensor one_zero = KTensor::ones(x.shape(), dtype::float64);
            gradcheck::values(one_zero)[5] = 0;
            return prod(x * one_zero, axes, keep);
        },
        true, 0.5, 1.5);
    add_row(Op::l2_norm, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(l2_norm), true);
    add_row(Op::logsumexp, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(logsumexp), false);
    add_row(Op::max, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(max), false);
    add_row(Op::min, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(min), false);
    add_row(Op::median, static_cast<KTensor (*)(const KTensor&, const std::vector<int>&, bool)>(median), false);
    add_row(
        Op::var, [](const KTensor& x, const auto& axes, bool keep) { return var(x, axes, keep, 1); }, false);
    add_row(
        Op::std_dev, [](const KTensor& x, const auto& axes, bool keep) { return std_dev(x, axes, keep, 0); }, false);
    rows.push_back({Op::trace, {{2, 3, 2}}, [](const Tensors& x) { return trace(x[0], 1, 0, 1); }, true});
    rows.push_back({Op::cumsum, {{2, 4}}, [](const Tensors& x) { return cumsum(x[0], -1); }, true});
    rows.push_back({Op::cumprod, {{2, 4}}, [](const Tensors& x) { return cumprod(x[0], 1); }, true});
    rows.push_back({Op::softmax, {{2, 4}}, [](const Tensors& x) { return softmax(x[0], 0); }});
    rows.push_back({Op::log_softmax, {{2, 4}}, [](const Tensors& x) { return log_softmax(x[0], -1); }});
    rows.push_back({Op::sort, {{2, 4}}, [](const Tensors& x) { return sort(x[0], -1, true).first; }});
    rows.push_back({Op::topk, {{4, 2}}, [](const Tensors& x) { return topk(x[0], 2, 0).first; }});
    return rows;
}

}  // namespace

std::vector<Row> gradcheck::all_rows() {
    std::vector<Row> rows;
    for (std::vector<Row> (*part)() : {element_rows, pair_rows, shape_rows, reduction_rows, gradcheck::index_rows,
                                       gradcheck::linalg_rows, gradcheck::product_rows, gradcheck::join_rows,
                                       gradcheck::layer_rows, gradcheck::network_rows, gradcheck::loss_rows}) {
        for (Row& row : part()) {
            rows.push_back(std::move(row));
        }
    }
    return rows;
}

namespace {

TEST(Gradients, Elements) { std::ranges::for_each(element_rows(), gradcheck::check); }
TEST(Gradients, Pairs) { std::ranges::for_each(pair_rows(), gradcheck::check); }
TEST(Gradients, Shapes) { std::ranges::for_each(shape_rows(), gradcheck::check); }
TEST(Gradients, Reductions) { std::ranges::for_each(reduction_rows(), gradcheck::check); }

TEST(Gradients, EveryOperationHasARow) {
    std::set<Op> checked{Op::custom, Op::checkpoint};  // Tested with the graph.
    for (const Row& row : gradcheck::all_rows()) {
        checked.insert(row.op);
    }
    for (std::uint16_t op = 0; op < static_cast<std::uint16_t>(Op::count); ++op) {
        EXPECT_TRUE(checked.contains(static_cast<Op>(op))) << info_of(static_cast<Op>(op)).name;
    }
}

}  // namespace
}  // namespace ornik
