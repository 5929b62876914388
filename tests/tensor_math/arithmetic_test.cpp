// Arithmetic of two tensors: new results, in place, the cores, gradients.
#include <complex>

#include "elements.h"
#include "support/expect_error.h"
#include "support/gradients.h"
#include "tensor/tensor_math/tensor_arithmetic.h"

namespace ornik::test {
namespace {

constexpr const char* file = "src/tensor/tensor_math/tensor_arithmetic.cpp";
const Dims shape{3, 4, 5};
constexpr std::int64_t numel = 60;

using NewResult = Tensor* (Tensor::*)(Tensor*);
using InPlace = void (Tensor::*)(Tensor*);
constexpr NewResult new_results[] = {&Tensor::add_tensor, &Tensor::sub_tensor, &Tensor::mult_tensor,
                                     &Tensor::div_tensor};
constexpr InPlace in_places[] = {&Tensor::add_tensor_inplace, &Tensor::sub_tensor_inplace, &Tensor::mult_tensor_inplace,
                                 &Tensor::div_tensor_inplace};
TensorPtr compute(Op op, const TensorPtr& a, const TensorPtr& b) {
    const NewResult method = new_results[static_cast<int>(op)];
    return TensorPtr((a.get()->*method)(b.get()));
}
void compute_in_place(Op op, const TensorPtr& self, const TensorPtr& other) {
    const InPlace method = in_places[static_cast<int>(op)];
    (self.get()->*method)(other.get());
}
std::string method_name(Op op) { return "ornik::Tensor::" + name_of(op) + "_tensor"; }

std::string case_name(Op op, const TensorPtr& a, const TensorPtr& b) {
    return name_of(op) + " " + dtype_name(a->Dtype()) + shape_text(a->Strides()) + dtype_name(b->Dtype()) +
           shape_text(b->Strides());
}
// x and y are the operands' values in the result's type.
template <typename R>
void check_results(const std::vector<Op>& ops, const TensorPtr& a, const TensorPtr& b, const std::vector<R>& x,
                   const std::vector<R>& y) {
    for (const Op op : ops) {
        SCOPED_TRACE(case_name(op, a, b));
        const int bools = int{a->isBool()} + int{b->isBool()};
        if (op == Op::sub && bools > 0) {
            expect_error([&] { compute(op, a, b); },
                         std::string("Subtraction, the `-` operator, with ") +
                             (bools == 2 ? "two bool tensors" : "one bool tensor") + " is not supported. ",
                         method_name(op), file);
            continue;
        }
        const TensorPtr result = compute(op, a, b);
        EXPECT_EQ(result->Shape(), shape);
        EXPECT_TRUE(result->is_contiguous());
        expect_values<R>(result, combined<R>(op, x, y));
    }
}

// y holds the other operand's values in self's type, where that is allowed.
template <typename A>
void check_in_place(Layout layout, const std::vector<A>& x, const TensorPtr& other, const std::vector<A>& y) {
    const std::int64_t s = dtype_code<A>;
    const std::int64_t r = sum_rule(s, other->Dtype());
    for (const Op op : all_ops) {
        const TensorPtr self = make<A>(shape, x, layout);
        SCOPED_TRACE(case_name(op, self, other));
        // Nothing leaves its kind; a quotient is kept by floating and complex tensors.
        if (kind_of(r) == kind_of(s) && (op != Op::div || kind_of(s) >= 2)) {
            compute_in_place(op, self, other);
            expect_values<A>(self, combined<A>(op, x, y));
            continue;
        }
        std::string message = "Not supported data type casting.";
        if (op == Op::mult) {
            message += " From " + dtype_name(r) + " to " + dtype_name(s);
        } else if (op == Op::div) {
            message = "Not supported data type of two operands for divide().";
        }
        expect_error([&] { compute_in_place(op, self, other); }, message, method_name(op) + "_inplace", file);
        expect_values<A>(self, x);
    }
}

TEST(Arithmetic, EveryPairOfTypes) {
    int round = 0;
    for_types(AllTypes{}, [&]<typename A>() {
        for_types(AllTypes{}, [&]<typename B>() {
            constexpr std::int64_t sum = sum_rule(dtype_code<A>, dtype_code<B>);
            using R = TypeAt<sum>;
            using Q = TypeAt<at_least_float(sum)>;
            const std::vector<A> x = random_values<A>(numel, 1);
            const std::vector<B> y = random_values<B>(numel, 2);
            const Layout layout = all_layouts[round % 5];
            const TensorPtr a = make<A>(shape, x, layout);
            const TensorPtr b = make<B>(shape, y, all_layouts[(round + round / 5) % 5]);
            ++round;
            check_results<R>({Op::add, Op::sub, Op::mult}, a, b, converted<R>(x), converted<R>(y));
            check_results<Q>({Op::div}, a, b, converted<Q>(x), converted<Q>(y));
            if constexpr (kind_of(dtype_code<B>) <= kind_of(dtype_code<A>)) {
                check_in_place<A>(layout, x, b, converted<A>(y));
            } else {
                check_in_place<A>(layout, x, b, {});
            }
            expect_values<A>(a, x);
            expect_values<B>(b, y);
        });
    });
}

TEST(Arithmetic, InPlaceOnItselfAndOnOverlappingViews) {
    const auto view = [](const TensorPtr& t, const Dims& extents, const Dims& strides, std::int64_t offset) {
        return TensorPtr(share_storage_tensor(t->getStorage(), extents, strides, dtype::int32, offset));
    };
    struct Case {
        const char* name;
        Dims extents, self, other;
        std::int64_t self_offset, other_offset;
    };
    const Case cases[] = {
        {"itself", {4, 4}, {4, 1}, {4, 1}, 0, 0},
        {"itself, transposed", {4, 4}, {1, 4}, {1, 4}, 0, 0},
        {"its transpose", {4, 4}, {4, 1}, {1, 4}, 0, 0},
        {"transposed, its transpose", {4, 4}, {1, 4}, {4, 1}, 0, 0},
        {"the next elements", {15}, {1}, {1}, 0, 1},
        {"the elements before", {15}, {1}, {1}, 1, 0},
        {"reversed", {16}, {1}, {-1}, 0, 15},
        {"its first row", {4, 4}, {4, 1}, {0, 1}, 0, 0},
        {"its last element", {4, 4}, {4, 1}, {0, 0}, 0, 15},
        {"another column", {4}, {4}, {4}, 1, 2},
        {"a row across a column", {4}, {4}, {1}, 1, 4},
    };
    for (const Case& c : cases) {
        for (const Op op : {Op::add, Op::sub, Op::mult}) {
            const std::vector<std::int32_t> values = counted<std::int32_t>(16, 3);
            const TensorPtr whole(Tensor::empty({16}, 0, dtype::int32));
            std::copy(values.begin(), values.end(), static_cast<std::int32_t*>(whole->getRawData()));
            const TensorPtr self = view(whole, c.extents, c.self, c.self_offset);
            const TensorPtr other = view(whole, c.extents, c.other, c.other_offset);
            std::vector<std::int32_t> expected = values;
            const std::vector<std::int32_t> sums =
                combined(op, values_of<std::int32_t>(self), values_of<std::int32_t>(other));
            std::size_t i = 0;
            for_each_offset(c.extents, c.self, [&](std::int64_t at) {
                expected[static_cast<std::size_t>(c.self_offset + at)] = sums[i++];
            });
            compute_in_place(op, self, other);
            EXPECT_EQ(values_of<std::int32_t>(whole), expected) << name_of(op) << " " << c.name;
        }
    }
}

// Conversions give null away from the CPU: that must end in an error, too.
TEST(Arithmetic, RefusesConversionsOnOtherDevices) {
    const TensorPtr far = make<float>({2, 3}, counted<float>(6)), far_double = make<double>({2, 3}, counted<double>(6));
    far->updateDevice(1000);
    far_double->updateDevice(1000);
    const std::string no_gpu = "Not compiled for GPU, set device = 0 or device = None";
    for (const Op op : all_ops) {
        EXPECT_EQ(error_text([&] { compute(op, far, far_double); }), no_gpu);
        EXPECT_EQ(error_text([&] { compute_in_place(op, far, far_double); }), no_gpu);
    }
    EXPECT_EQ(values_of<float>(far), counted<float>(6));
}

// ---- Cores ----

void core(Op op, float alpha, const TensorPtr& a, float beta, const TensorPtr& b, const TensorPtr& out,
          int accumulate) {
    switch (op) {
        case Op::add:
            return add(alpha, a.get(), beta, b.get(), out.get(), accumulate);
        case Op::sub:
            return sub(alpha, a.get(), beta, b.get(), out.get(), accumulate);
        case Op::mult:
            return mult(a.get(), b.get(), out.get(), accumulate);
        case Op::div:
            return div(a.get(), b.get(), out.get(), accumulate);
    }
}

TEST(Cores, CoefficientsAndAccumulation) {
    struct Factors {
        float alpha, beta;
    };
    for_types(AllTypes{}, [&]<typename T>() {
        int round = 0;
        for (const auto& [alpha, beta] : {Factors{1, 1}, {2, 3}, {0.5F, 2}, {1, 0.1F}, {0, 1.75F}}) {
            for (const Op op : all_ops) {
                for (const int accumulate : {0, 1}) {
                    if (op == Op::div && kind_of(dtype_code<T>) < 2) {
                        continue;
                    }
                    const std::vector<T> x = random_values<T>(numel, 3), y = random_values<T>(numel, 4);
                    const std::vector<T> old = random_values<T>(numel, 5);
                    const TensorPtr a = make<T>(shape, x, all_layouts[round % 5]);
                    const TensorPtr b = make<T>(shape, y, all_layouts[(round + 2) % 5]);
                    const TensorPtr out = make<T>(shape, old, all_layouts[(round + round / 5) % 5]);
                    ++round;
                    const auto scaled = [&](const std::vector<T>& values, float factor) {
                        const bool scales = op == Op::add || op == Op::sub;
                        return scales ? combined(Op::mult, std::vector<T>(numel, to<T>(factor)), values) : values;
                    };
                    const std::vector<T> fresh = combined(op, scaled(x, alpha), scaled(y, beta));
                    const std::vector<T> expected = accumulate != 0 ? combined(Op::add, fresh, old) : fresh;
                    core(op, alpha, a, beta, b, out, accumulate);
                    EXPECT_TRUE(same(values_of<T>(out), expected))
                        << name_of(op) << " " << dtype_name(dtype_code<T>) << " " << alpha << " " << accumulate;
                }
            }
        }
    });
}

TEST(Cores, RefusalsInTheirOrder) {
    const auto fresh = [](const Dims& extents, bool is_float, std::int64_t device) {
        TensorPtr t = is_float ? make<float>(extents, counted<float>(numel_of(extents), 1))
                               : make<std::int32_t>(extents, counted<std::int32_t>(numel_of(extents), 1));
        t->updateDevice(device);
        return t;
    };
    const TensorPtr a = fresh({2, 3}, true, 0), integers = fresh({2, 3}, false, 0);
    const TensorPtr wide_far = fresh({3, 2}, false, 1000), wide = fresh({3, 2}, false, 0);
    const TensorPtr row = fresh({3}, true, 0);
    const TensorPtr expanded(Tensor::broadcast_to(row.get(), {2, 3}));
    const std::string result = "Incompatible shape: lhs has a shape of ( 2, 3 ) , result has a shape of ( 3, 2 ) ";
    const std::string shapes[] = {result, "Incompatible shape", "Incompatible shape for mult(),   ",
                                  "Incompatible dims for div(),   "};
    const std::string expanded_text = "Output can not be an expanded view: shape ( 2, 3 ) , strides ( 0, 1 ) ";
    for (const Op op : all_ops) {
        const auto refused = [&](const TensorPtr& b, const TensorPtr& out, const std::string& message) {
            expect_error([&] { core(op, 1, a, 1, b, out, 0); }, message,
                         op == Op::div ? "Tensor::div" : "ornik::" + name_of(op), file);
            EXPECT_EQ(values_of<float>(a), counted<float>(6, 1));
            EXPECT_EQ(values_of<float>(row), counted<float>(3, 1));
            EXPECT_EQ(values_of<std::int32_t>(wide), counted<std::int32_t>(6, 1));
            EXPECT_EQ(values_of<std::int32_t>(integers), counted<std::int32_t>(6, 1));
        };
        refused(wide_far, a, "Tensors in different devices");
        refused(a, wide_far, "Tensors in different devices");
        refused(a, wide, shapes[static_cast<int>(op)]);
        refused(integers, expanded, "Not same data type");
        refused(a, integers, "Not same data type");
        refused(a, expanded, expanded_text);
    }
}

TEST(Arithmetic, SumOfAList) {
    const TensorPtr a = make<std::int8_t>({2, 2}, {100, 2, 3, 4}, Layout::transposed);
    const TensorPtr b = make<std::int64_t>({2, 2}, {100, 20, 30, 40});
    const TensorPtr c = make<float>({2, 2}, {1, 2, 3, 4});
    const auto sum = [](const std::vector<Tensor*>& list) { return TensorPtr(Tensor::add_tensors_list(list)); };
    const std::vector<Tensor*> three{a.get(), b.get(), c.get()};
    const TensorPtr total = sum({a.get(), b.get(), a.get()});
    EXPECT_EQ(total->Dtype(), dtype::int8);
    EXPECT_EQ(values_of<std::int8_t>(total), (std::vector<std::int8_t>{44, 24, 36, 48}));
    const TensorPtr one = sum({a.get()});
    EXPECT_EQ(values_of<std::int8_t>(one), values_of<std::int8_t>(a));
    EXPECT_NE(one->getStorage(), a->getStorage());
    EXPECT_EQ(values_of<std::int8_t>(a), (std::vector<std::int8_t>{100, 2, 3, 4}));
}

// ---- Gradients ----

TEST(Gradients, AgreeWithCentralDifferences) {
    const std::complex<double> factor(1.5, -2.5);
    for (const std::int64_t dtype : {dtype::float64, dtype::complex128}) {
        const TensorPtr g = random_tensor({2, 3}, dtype, 6);
        const TensorPtr x = random_tensor({2, 3}, dtype, 7, Layout::transposed);
        const TensorPtr y = random_tensor({2, 3}, dtype, 9, Layout::every_other);
        y->add_scalar_inplace(2.0F);
        const auto quotient = [&](Tensor* t) { return t->div_tensor(y.get()); };
        expect_gradient([&](Tensor* t) { return t->mult_tensor(y.get()); }, x, g,
                        mult_dx_grad(x.get(), y.get(), g.get()));
        expect_gradient([&](Tensor* t) { return x->mult_tensor(t); }, y, g, mult_dy_grad(x.get(), y.get(), g.get()));
        expect_gradient(quotient, x, g, div_dx_grad(x.get(), y.get(), g.get()));
        expect_gradient([&](Tensor* t) { return x->div_tensor(t); }, y, g, div_dy_grad(x.get(), y.get(), g.get()));
        if (dtype == dtype::complex128) {
            expect_gradient([&](Tensor* t) { return t->mult_scalar_std_complex_wrapper(factor); }, x, g,
                            g->mult_scalar_std_complex_grad_wrapper(factor));
        }
    }
}

TEST(Gradients, TypesAndShapes) {
    const TensorPtr grad = make<float>({2}, {1, 2});
    const TensorPtr x = make<std::int32_t>({2}, {3, 4});
    const TensorPtr y = make<std::int64_t>({2}, {2, 5});
    const TensorPtr z = make<double>({2}, {2, 5});
    const TensorPtr dx(div_dx_grad_impl(grad.get(), x.get(), y.get()));
    EXPECT_EQ(dx->Dtype(), dtype::float32);
    EXPECT_EQ(values_of<float>(dx), (std::vector<float>{0.5F, 0.4F}));
    const TensorPtr dy(div_dy_grad_impl(grad.get(), x.get(), z.get()));
    EXPECT_EQ(dy->Dtype(), dtype::float64);
    EXPECT_EQ(values_of<double>(dy)[0], -0.75);
    const TensorPtr product(mult_grad_impl(grad.get(), z.get()));
    EXPECT_EQ(product->Dtype(), dtype::float64);
}

}  // namespace
}  // namespace ornik::test
