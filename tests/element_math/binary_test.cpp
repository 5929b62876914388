// Binary operations: every row of the table, tensors with tensors and with scalars.
#include "references.h"
#include "tensor_math/elements.h"

namespace ornik::test {
namespace {

struct Front {
    Tensor* (Tensor::*fresh)(Tensor*) = nullptr;
    Tensor* (Tensor::*with_scalar)(const Scalar&) = nullptr;
    void (Tensor::*in_place)(Tensor*) = nullptr;
    void (Tensor::*scalar_in_place)(const Scalar&) = nullptr;
    void (*into)(Tensor*, Tensor*, Tensor*) = nullptr;
};

const Front& front_of(Binary operation) {
    static const std::map<Binary, Front> fronts = [] {
        std::map<Binary, Front> all;
#define FRESH(name, ...) all[Binary::name] = {&Tensor::name, &Tensor::name##_scalar, nullptr, nullptr, ornik::name};
#define IN_PLACE(name, ...)                               \
    all[Binary::name].in_place = &Tensor::name##_inplace; \
    all[Binary::name].scalar_in_place = &Tensor::name##_scalar_inplace;
        ORNIK_BINARY_OPERATIONS(FRESH)
        ORNIK_ARITHMETIC_PAIR_OPERATIONS(IN_PLACE)
        ORNIK_BIT_PAIR_OPERATIONS(IN_PLACE)
        return all;
    }();
    return fronts.at(operation);
}

void for_each_operation(const std::function<void(Binary, const Row&, const BinaryReference&)>& visit) {
    for_each_row<Binary>(binary_references(), visit);
}

// The exact result of operands that have been converted to the computing dtype.
CLD evaluated(const BinaryReference& reference, CLD a, CLD b, std::int64_t dtype) {
    if (dtype >= dtype::complex64) {
        return reference.complex(a, b);
    }
    if (dtype >= dtype::float32) {
        return reference.real(a.real(), b.real());
    }
    return static_cast<LD>(reference.whole(static_cast<std::int64_t>(a.real()), static_cast<std::int64_t>(b.real())));
}

void expect_results(const Tensor* got, const std::vector<CLD>& a, const std::vector<CLD>& b, std::int64_t computing,
                    const Row& row, const BinaryReference& reference) {
    const std::vector<CLD> left = converted(computing, a), right = converted(computing, b);
    const std::vector<CLD> results = wide_values(got);
    for (std::size_t i = 0; i < results.size(); ++i) {
        const CLD exact = held(evaluated(reference, left[i], right[i], computing), got->Dtype());
        ASSERT_TRUE(matches(results[i], exact, got->Dtype(), row, computing >= dtype::complex64))
            << left[i] << ", " << right[i] << " gives " << results[i];
    }
}

const Dims shape{2, 3, 4};

std::vector<CLD> arguments_for(std::int64_t dtype, int seed) {
    std::vector<CLD> values;
    for (int i = 0; i < 24; ++i) {
        const int x = (seed + 5 * i) % 9 - (dtype == dtype::uint8 ? 0 : 3);
        values.emplace_back(dtype < dtype::float32 ? x : x * 0.5L, dtype < dtype::complex64 ? 0 : 0.25L * (i % 3));
    }
    return converted(dtype, values);
}

std::int64_t computing_rule(const Row& row, std::int64_t promoted) {
    return row.result != operations::Result::floating || promoted >= dtype::float32 ? promoted
           : promoted == dtype::int64                                               ? dtype::float64
                                                                                    : dtype::float32;
}

TEST(Binary, EveryPairOfDtypes) {
    int round = 0;
    for_each_operation([&](Binary operation, const Row& row, const BinaryReference& reference) {
        const Front& front = front_of(operation);
        const std::string scope = "ornik::Tensor::" + std::string(row.name);
        for (std::int64_t first = 0; first < dtype_count; ++first) {
            for (std::int64_t second = 0; second < dtype_count; ++second) {
                SCOPED_TRACE(name_of_dtype(first) + ", " + name_of_dtype(second));
                const std::vector<CLD> a = arguments_for(first, 0), b = arguments_for(second, 4);
                const Layout layout = all_layouts[round++ % 5];
                const TensorPtr left = make_wide(first, shape, a, layout);
                const TensorPtr right = make_wide(second, shape, b, all_layouts[round % 5]);
                const std::int64_t promoted = sum_rule(first, second);
                if (!operations::accepts(row, promoted)) {
                    expect_error(
                        [&] { (left.get()->*front.fresh)(right.get()); },
                        std::string(row.name) + "() is not supported for " + name_of_dtype(promoted) + " tensor.",
                        scope, front_file);
                    continue;
                }
                const std::int64_t computing = computing_rule(row, promoted);
                const TensorPtr fresh((left.get()->*front.fresh)(right.get()));
                ASSERT_EQ(fresh->Dtype(), row.result == operations::Result::boolean ? dtype::boolean : computing);
                expect_results(fresh.get(), a, b, computing, row, reference);
                const TensorPtr out = make_empty(shape, fresh->Dtype(), Layout::transposed);
                front.into(left.get(), right.get(), out.get());
                EXPECT_EQ(bytes_of(out), bytes_of(fresh));
                if (front.in_place == nullptr) {
                    continue;
                }
                const bool keeps = kind_of(fresh->Dtype()) == kind_of(first);
                if (keeps) {
                    (left.get()->*front.in_place)(right.get());
                    expect_results(left.get(), a, b, first, row, reference);
                } else {
                    expect_error([&] { (left.get()->*front.in_place)(right.get()); },
                                 "Not supported data type casting.", scope + "_inplace", front_file);
                    EXPECT_EQ(bytes_of(left), bytes_of(make_wide(first, shape, a)));
                }
            }
        }
    });
}

// As in arithmetic, but a scalar never widens a tensor of its kind.
std::int64_t of_kind_rule(std::int64_t tensor, std::int64_t scalar) {
    return kind_of(tensor) == kind_of(scalar) ? tensor : scalar_rule(tensor, scalar);
}

TEST(Binary, EveryPairOfATensorAndAScalar) {
    for_each_operation([&](Binary operation, const Row& row, const BinaryReference& reference) {
        const Front& front = front_of(operation);
        for (std::int64_t first = 0; first < dtype_count; ++first) {
            for_types(AllTypes{}, [&]<typename S>() {
                SCOPED_TRACE(name_of_dtype(first) + ", " + name_of_dtype(dtype_code<S>));
                const std::vector<CLD> a = arguments_for(first, 0);
                const S scalar = narrowed<S>(CLD(2.5L));
                const std::vector<CLD> b(a.size(), widened(scalar));
                const TensorPtr left = make_wide(first, shape, a, Layout::transposed);
                const std::int64_t promoted = row.result == operations::Result::boolean
                                                  ? sum_rule(first, dtype_code<S>)
                                                  : of_kind_rule(first, dtype_code<S>);
                if (!operations::accepts(row, promoted)) {
                    expect_error([&] { (left.get()->*front.with_scalar)(scalar); },
                                 std::string(row.name) + "_scalar() is not supported for " + name_of_dtype(promoted) +
                                     " tensor.",
                                 "ornik::Tensor::" + std::string(row.name) + "_scalar", front_file);
                    return;
                }
                const std::int64_t computing = computing_rule(row, promoted);
                const TensorPtr fresh((left.get()->*front.with_scalar)(scalar));
                ASSERT_EQ(fresh->Dtype(), row.result == operations::Result::boolean ? dtype::boolean : computing);
                expect_results(fresh.get(), a, b, computing, row, reference);
                if (front.scalar_in_place != nullptr && kind_of(fresh->Dtype()) == kind_of(first)) {
                    (left.get()->*front.scalar_in_place)(scalar);
                    expect_results(left.get(), a, b, first, row, reference);
                }
            });
        }
    });
}

TEST(Binary, SpecialFloatingValues) {
    std::vector<CLD> a;
    std::vector<CLD> b;
    const double values[] = {0.0, -0.0, 1.5, -1.5, 3, -7, 1e300, 5e-324, INFINITY, -INFINITY, NAN};
    for (const double x : values) {
        for (const double y : values) {
            a.emplace_back(x);
            b.emplace_back(y);
        }
    }
    const auto n = static_cast<std::int64_t>(a.size());
    const TensorPtr left = make_wide(dtype::float64, {n}, a), right = make_wide(dtype::float64, {n}, b);
    for_each_operation([&](Binary operation, const Row& row, const BinaryReference& reference) {
        if (reference.real != nullptr) {
            const TensorPtr result((left.get()->*front_of(operation).fresh)(right.get()));
            const std::vector<CLD> got = wide_values(result.get());
            for (std::size_t i = 0; i < a.size(); ++i) {
                const LD exact = reference.real(a[i].real(), b[i].real());
                // Which zero maximum and minimum give is left open.
                const bool zeros = exact == 0 && got[i] == CLD(0);
                EXPECT_TRUE(zeros || matches(got[i], exact, result->Dtype(), row))
                    << a[i].real() << ", " << b[i].real() << " gives " << got[i].real() << ", not " << exact;
            }
        }
    });
}

TEST(Binary, LongRowsInPiecesAndRowsThatRepeatAnElement) {
    const Dims wide{3, 700};
    const std::vector<float> values = counted<float>(2100, -900);
    const TensorPtr column = make<float>({3, 1}, {-600, 200, 650});
    const TensorPtr repeated(Tensor::broadcast_to(column.get(), wide));
    for (const Layout layout : all_layouts) {
        SCOPED_TRACE(name_of(layout));
        const TensorPtr a = make<float>(wide, values, layout);
        const TensorPtr out = make_empty(wide, dtype::float32, Layout::every_other);
        maximum(repeated.get(), a.get(), out.get());
        const TensorPtr above(a->greater(repeated.get())), chosen(where(above.get(), a.get(), repeated.get()));
        EXPECT_EQ(bytes_of(chosen), bytes_of(out));
        const std::vector<float> got = values_of<float>(out);
        for (std::size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(got[i], std::max(values[i], i < 700 ? -600.0F : i < 1400 ? 200.0F : 650.0F)) << i;
        }
    }
}

TEST(Binary, IntegersAtTheirEnds) {
    const auto with = [](std::int8_t x, Tensor* (Tensor::*operation)(Tensor*), std::int8_t y) {
        const TensorPtr a = make<std::int8_t>({1}, {x}), b = make<std::int8_t>({1}, {y});
        return int{values_of<std::int8_t>(TensorPtr((a.get()->*operation)(b.get())))[0]};
    };
    EXPECT_EQ(with(-128, &Tensor::fmod, -1), 0);
    EXPECT_EQ(with(-128, &Tensor::remainder, -1), 0);
    EXPECT_EQ(with(5, &Tensor::remainder, 0), 0);
    EXPECT_EQ(with(-1, &Tensor::pow, -3), -1);
    EXPECT_EQ(with(3, &Tensor::pow, 5), -13);
    EXPECT_EQ(with(1, &Tensor::left_shift, 8), 0);
    EXPECT_EQ(with(-64, &Tensor::left_shift, 1), -128);
    EXPECT_EQ(with(-5, &Tensor::right_shift, 9), -1);
    EXPECT_EQ(with(5, &Tensor::right_shift, -1), 0);
}

TEST(Binary, GradientsAtQuotientsThatRoundAndAtTies) {
    // The divisor's part counts whole quotients, those of infinite divisors and of quotients that round up too.
    const double below = std::nextafter(3e15, 0);
    const struct {
        double a, b, floor, trunc;
    } quotients[] = {{5, INFINITY, 0, 0},
                     {-5, INFINITY, -1, 0},
                     {5, -INFINITY, -1, 0},
                     {-5, -INFINITY, 0, 0},
                     {7, 2, 3, 3},
                     {-7, 2, -4, -3},
                     {6, -3, -2, -2},
                     {0, INFINITY, 0, 0},
                     {below, 3, 999999999999999, 999999999999999},
                     {-below, 3, -1000000000000000, -999999999999999}};
    for (const auto& q : quotients) {
        const TensorPtr a = make<double>({1}, {q.a}), b = make<double>({1}, {q.b}), g = make<double>({1}, {2});
        EXPECT_EQ(values_of<double>(TensorPtr(remainder_dy_grad(a.get(), b.get(), g.get())))[0], -2 * q.floor) << q.a;
        EXPECT_EQ(values_of<double>(TensorPtr(fmod_dy_grad(a.get(), b.get(), g.get())))[0], -2 * q.trunc) << q.a;
    }
    const TensorPtr same = make<float>({2}, {3, NAN}), one = make<float>({2}, {1, 1});
    const TensorPtr shared(maximum_dx_grad(same.get(), same.get(), one.get()));
    EXPECT_EQ(values_of<float>(shared), (std::vector<float>{0.5F, 1}));
}

// ---- Choice, clamping, closeness ----

TEST(Select, WhereOfEveryPairOfDtypesAndItsGradients) {
    for (std::int64_t first = 0; first < dtype_count; ++first) {
        for (std::int64_t second = 0; second < dtype_count; ++second) {
            const std::vector<CLD> a = arguments_for(first, 0), b = arguments_for(second, 4);
            const std::int64_t r = sum_rule(first, second);
            const std::vector<CLD> left = converted(r, a), right = converted(r, b);
            const TensorPtr condition = make<bool>(shape, counted<bool>(24), all_layouts[(first + second) % 5]);
            const TensorPtr result(where(condition.get(), make_wide(first, shape, a, Layout::transposed).get(),
                                         make_wide(second, shape, b, Layout::reversed).get()));
            std::vector<CLD> expected;
            for (std::size_t i = 0; i < 24; ++i) {
                expected.push_back(i % 3 != 0 ? left[i] : right[i]);
            }
            ASSERT_EQ(result->Dtype(), r);
            ASSERT_TRUE(wide_values(result.get()) == expected) << first << " " << second;
        }
    }
    const TensorPtr condition = make<bool>({3}, {true, false, true});
    const TensorPtr grad = make<float>({3}, {1, 2, 3});
    EXPECT_EQ(values_of<float>(TensorPtr(where_dx_grad(condition.get(), grad.get()))), (std::vector<float>{1, 0, 3}));
    EXPECT_EQ(values_of<float>(TensorPtr(where_dy_grad(condition.get(), grad.get()))), (std::vector<float>{0, 2, 0}));
}

TEST(Select, MaskedFill) {
    const TensorPtr mask = make<bool>({2, 2}, {true, false, false, true}, Layout::transposed);
    for (const Layout layout : all_layouts) {
        const TensorPtr t = make<std::int16_t>({2, 2}, {1, 2, 3, 4}, layout);
        EXPECT_EQ(values_of<float>(TensorPtr(t->masked_fill(mask.get(), 0.5F))),
                  (std::vector<float>{0.5F, 2, 3, 0.5F}));
        EXPECT_EQ(values_of<float>(TensorPtr(TensorPtr(t->astype(dtype::float32))->masked_fill(mask.get(), -1e9))),
                  (std::vector<float>{-1e9F, 2, 3, -1e9F}));
        t->masked_fill_inplace(mask.get(), std::int64_t{-9});
        EXPECT_EQ(values_of<std::int16_t>(t), (std::vector<std::int16_t>{-9, 2, 3, -9}));
        EXPECT_EQ(values_of<std::int16_t>(TensorPtr(masked_fill_grad(mask.get(), t.get()))),
                  (std::vector<std::int16_t>{0, 2, 3, 0}));
    }
}

TEST(Select, ClampsToBounds) {
    const TensorPtr bytes = make<std::uint8_t>({4}, {0, 3, 200, 255});
    EXPECT_EQ(values_of<std::uint8_t>(TensorPtr(bytes->clamp(-5, 300))), (std::vector<std::uint8_t>{0, 3, 200, 255}));
    EXPECT_EQ(values_of<std::uint8_t>(TensorPtr(bytes->clamp(3, 200))), (std::vector<std::uint8_t>{3, 3, 200, 200}));
    const TensorPtr t = make<float>({5}, {-2, -0.5F, 0.5F, 2, NAN}, Layout::reversed);
    const TensorPtr grad = make<float>({5}, {1, 2, 3, 4, 5});
    EXPECT_EQ(values_of<float>(TensorPtr(clamp_grad(t.get(), -1.0F, 0.5F, grad.get()))),
              (std::vector<float>{0, 2, 3, 0, 0}));
    // A bound counts as rounded to the tensor's dtype, here 0.7 down to 0.699999988.
    const TensorPtr edge = make<float>({1}, {0.7F});
    EXPECT_EQ(values_of<float>(TensorPtr(edge->clamp(0.7, 1.0))), (std::vector<float>{0.7F}));
    EXPECT_EQ(values_of<float>(TensorPtr(clamp_grad(edge.get(), 0.7, 1.0, edge.get()))), (std::vector<float>{0.7F}));
    EXPECT_EQ(values_of<float>(TensorPtr(t->clamp_min(-1.0F)))[0], -1);
    EXPECT_EQ(values_of<float>(TensorPtr(t->clamp_max(1.0F)))[3], 1);
    t->clamp_inplace(-1.0F, 1.0F);
    const std::vector<float> values = values_of<float>(t);
    EXPECT_EQ(std::vector<float>(values.begin(), values.end() - 1), (std::vector<float>{-1, -0.5F, 0.5F, 1}));
    EXPECT_TRUE(std::isnan(values.back()));
}

TEST(Select, Closeness) {
    const TensorPtr a = make<double>({6}, {1, 1, INFINITY, INFINITY, NAN, 0});
    const TensorPtr b = make<double>({6}, {1.00001, 1.0001, INFINITY, -INFINITY, NAN, 1e-9}, Layout::every_other);
    EXPECT_EQ(values_of<bool>(TensorPtr(a->is_close(b.get()))),
              (std::vector<bool>{true, false, true, false, false, true}));
    EXPECT_EQ(values_of<bool>(TensorPtr(a->is_close(b.get(), 1e-3, 0, true))),
              (std::vector<bool>{true, true, true, false, true, false}));
    EXPECT_FALSE(a->all_close(b.get()));
    EXPECT_TRUE(make<Complex<float>>({1}, {{3, 4}})->all_close(make<Complex<float>>({1}, {{3, 4.00001F}}).get()));
}

}  // namespace
}  // namespace ornik::test
