// Arithmetic of a tensor and a scalar.
#include <complex>
#include <functional>

#include "elements.h"
#include "support/expect_error.h"

namespace ornik::test {
namespace {

constexpr const char* file = "src/tensor/tensor_math/tensor_arithmetic.cpp";
const Dims shape{3, 4, 5};

template <typename S>
TensorPtr compute(Op op, const TensorPtr& t, S scalar) {
    return TensorPtr(op == Op::add    ? t->add_scalar(scalar)
                     : op == Op::sub  ? t->sub_scalar(scalar)
                     : op == Op::mult ? t->mult_scalar(scalar)
                                      : t->div_scalar(scalar));
}

template <typename S>
void compute_in_place(Op op, const TensorPtr& t, S scalar) {
    op == Op::add    ? t->add_scalar_inplace(scalar)
    : op == Op::sub  ? t->sub_scalar_inplace(scalar)
    : op == Op::mult ? t->mult_scalar_inplace(scalar)
                     : t->div_scalar_inplace(scalar);
}

std::string method(Op op) { return "ornik::Tensor::" + name_of(op) + "_scalar"; }

// What an operation in place answers; empty when it is allowed.
std::string refusal(Op op, std::int64_t self, std::int64_t scalar) {
    if (op != Op::div) {
        return kind_of(scalar_rule(self, scalar)) == kind_of(self) ? "" : "Not supported data type casting.";
    }
    if (kind_of(self) < 2) {
        return "Non-Float or Non-Complexdata divide in-place is not supported.";
    }
    return kind_of(self) == 2 && kind_of(scalar) == 3
               ? "Non Complex  divides non-complex data in-place is not supported."
               : "";
}

TEST(ScalarArithmetic, EveryPairOfTypes) {
    int round = 0;
    const auto check = [&]<typename R, typename A, typename S>(Op op, S scalar) {
        const std::vector<A> values = random_values<A>(numel_of(shape), 11);
        const Layout layout = all_layouts[round++ % 5];
        const TensorPtr t = make<A>(shape, values, layout);
        SCOPED_TRACE(name_of(op) + " " + dtype_name(dtype_code<A>) + " " + name_of(layout) + ", " +
                     dtype_name(dtype_code<S>));
        const std::vector<R> expected =
            combined<R>(op, converted<R>(values), std::vector<R>(values.size(), to<R, S>(scalar)));
        const TensorPtr result = compute(op, t, scalar);
        EXPECT_EQ(result->Shape(), shape);
        expect_values<R>(result, expected);
        expect_values<A>(t, values);

        const std::string message = refusal(op, dtype_code<A>, dtype_code<S>);
        if (message.empty()) {
            compute_in_place(op, t, scalar);
            expect_values<A>(t, converted<A>(expected));
        } else {
            expect_error([&] { compute_in_place(op, t, scalar); }, message, method(op) + "_inplace", file);
            expect_values<A>(t, values);
        }
    };
    for_types(AllTypes{}, [&]<typename A>() {
        for_types(AllTypes{}, [&]<typename S>() {
            for (const S scalar : random_values<S>(3, 12)) {
                for (const Op op : {Op::add, Op::sub, Op::mult}) {
                    check.template operator()<TypeAt<scalar_rule(dtype_code<A>, dtype_code<S>)>, A>(op, scalar);
                }
                check.template operator()<TypeAt<at_least_float(dtype_code<A>)>, A>(Op::div, scalar);
            }
        });
    });
}

TEST(ScalarArithmetic, StandardComplexScalars) {
    for_types(TypeList<float, double>{}, []<typename Part>() {
        using C = Complex<Part>;
        const std::complex<Part> scalar(1.5, -0.25);
        const std::vector<C> values = random_values<C>(6, 13);
        const auto fresh = [&] { return make<C>({2, 3}, values, Layout::transposed); };
        const TensorPtr t = fresh();
        const auto matches = [&](Op op, Tensor* result, void (Tensor::*in_place)(std::complex<Part>)) {
            const TensorPtr owner(result);
            const TensorPtr self = fresh();
            (self.get()->*in_place)(scalar);
            const std::vector<C> expected = combined<C>(op, values, std::vector<C>(6, C(scalar)));
            SCOPED_TRACE(name_of(op));
            expect_values<C>(owner, expected);
            expect_values<C>(self, expected);
        };
        matches(Op::add, t->add_scalar_std_complex_wrapper(scalar), &Tensor::add_scalar_inplace_std_complex_wrapper);
        matches(Op::sub, t->sub_scalar_std_complex_wrapper(scalar), &Tensor::sub_scalar_inplace_std_complex_wrapper);
        matches(Op::mult, t->mult_scalar_std_complex_wrapper(scalar), &Tensor::mult_scalar_inplace_std_complex_wrapper);
        matches(Op::div, t->div_scalar_std_complex_wrapper(scalar), &Tensor::div_scalar_inplace_std_complex_wrapper);
        const TensorPtr gradient(t->mult_scalar_std_complex_grad_wrapper(scalar));
        expect_values<C>(gradient, combined<C>(Op::mult, values, std::vector<C>(6, C(std::conj(scalar)))));
        const TensorPtr real = make<float>({1}, {2});
        const TensorPtr from_real(real->mult_scalar_std_complex_grad_wrapper(scalar));
        EXPECT_EQ(values_of<C>(from_real), std::vector<C>{C(3, 0.5)});
    });
}

}  // namespace
}  // namespace ornik::test
