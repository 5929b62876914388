#include <numeric>

#include "reference.h"
#include "tensor/tensor_math/reductions.h"

namespace ornik::test {
namespace {

using Axes = std::vector<int>;
using Reduction = Tensor* (*)(Tensor*, const Axes&, bool);
using Gradient = Tensor* (*)(Tensor*, Tensor*, const Axes&, bool);

double sum_of(const Values& v) { return std::accumulate(v.begin(), v.end(), 0.0); }
double mean_of(const Values& v) { return sum_of(v) / static_cast<double>(v.size()); }
double var_of(const Values& v, double correction = 1) {
    const double mean = mean_of(v);
    double squares = 0;
    for (const double x : v) {
        squares += (x - mean) * (x - mean);
    }
    const double divisor = static_cast<double>(v.size()) - correction;
    return divisor > 0 ? squares / divisor : not_a_number;
}
double place_of(const Values& v, bool largest) {
    std::size_t best = 0;
    for (std::size_t i = 1; i < v.size(); ++i) {
        best = (largest ? v[i] > v[best] : v[i] < v[best]) ? i : best;
    }
    return static_cast<double>(best);
}

enum class Kind { same, total, floating, place, truth };

struct Row {
    const char* name;
    Reduction reduce;
    double (*reference)(const Values&);
    Kind kind;
    bool float_only = false;
    Gradient gradient = nullptr;
};

constexpr double correction = 0.5;

const Row rows[] = {
    {"sum", sum, sum_of, Kind::total, false, sum_grad},
    {"prod", prod, [](const Values& v) { return std::accumulate(v.begin(), v.end(), 1.0, std::multiplies<>()); },
     Kind::total, false, prod_grad},
    {"mean", mean, mean_of, Kind::floating, false, mean_grad},
    {"l2_norm", l2_norm,
     [](const Values& v) { return std::sqrt(std::inner_product(v.begin(), v.end(), v.begin(), 0.0)); }, Kind::floating,
     false, l2_norm_grad},
    {"var", [](Tensor* x, const Axes& axes, bool keep) { return var(x, axes, keep, correction); },
     [](const Values& v) { return var_of(v, correction); }, Kind::floating, false,
     [](Tensor* g, Tensor* x, const Axes& axes, bool keep) { return var_grad(g, x, axes, keep, correction); }},
    {"std_dev", [](Tensor* x, const Axes& axes, bool keep) { return std_dev(x, axes, keep, correction); },
     [](const Values& v) { return std::sqrt(var_of(v, correction)); }, Kind::floating, false,
     [](Tensor* g, Tensor* x, const Axes& axes, bool keep) { return std_dev_grad(g, x, axes, keep, correction); }},
    {"std", [](Tensor* x, const Axes& axes, bool keep) { return ornik::std(x, axes, keep, correction); },
     [](const Values& v) { return std::sqrt(var_of(v, correction)); }, Kind::floating, false,
     [](Tensor* g, Tensor* x, const Axes& axes, bool keep) { return std_grad(g, x, axes, keep, correction); }},
    {"logsumexp", logsumexp,
     [](const Values& v) {
         return std::log(std::accumulate(v.begin(), v.end(), 0.0, [](double s, double x) { return s + std::exp(x); }));
     },
     Kind::floating, true, logsumexp_grad},
    {"max", max, [](const Values& v) { return *std::max_element(v.begin(), v.end()); }, Kind::same, false, max_grad},
    {"min", min, [](const Values& v) { return *std::min_element(v.begin(), v.end()); }, Kind::same, false, min_grad},
    {"median", median,
     [](const Values& v) {
         Values s = v;
         std::sort(s.begin(), s.end());
         return (s[(s.size() - 1) / 2] + s[s.size() / 2]) / 2;
     },
     Kind::floating, false, median_grad},
    {"argmax", argmax, [](const Values& v) { return place_of(v, true); }, Kind::place},
    {"argmin", argmin, [](const Values& v) { return place_of(v, false); }, Kind::place},
    {"any", any, [](const Values& v) { return std::count(v.begin(), v.end(), 0.0) < std::ssize(v) ? 1.0 : 0.0; },
     Kind::truth},
    {"all", all, [](const Values& v) { return std::count(v.begin(), v.end(), 0.0) == 0 ? 1.0 : 0.0; }, Kind::truth},
};

std::int64_t result_dtype(Kind kind, std::int64_t dtype) {
    const bool integer = dtype < dtype::float32;
    switch (kind) {
        case Kind::same:
            return dtype;
        case Kind::total:
            return integer ? dtype::int64 : dtype;
        case Kind::floating:
            return integer ? dtype::float32 : dtype;
        case Kind::place:
            return dtype::int64;
        default:
            return dtype::boolean;
    }
}

std::vector<double> reference(const Row& row, const Values& x, const Dims& shape, const Axes& axes) {
    std::vector<double> result;
    for (const auto& group : groups(shape, axes)) {
        Values values;
        for (const std::size_t place : group) {
            values.push_back(x[place]);
        }
        result.push_back(row.reference(values));
    }
    return result;
}

struct Case {
    Dims shape;
    Axes axes;
};

TEST(Reductions, EveryOperationDtypeLayoutAndAxes) {
    // Small numbers with repetitions: integer sums and products are exact, ties are common.
    const Case cases[] = {{{3, 4, 5}, {}},  {{3, 4, 5}, {1}},       {{3, 4, 5}, {-1}}, {{3, 4, 5}, {2, 0}},
                          {{3, 4, 5}, {0}}, {{2, 3, 1, 4}, {1, 2}}, {{1, 6}, {0}},     {{}, {}}};
    int round = 0;
    for (const Row& row : rows) {
        for_types(RealTypes{}, [&]<typename T>() {
            if (row.float_only && !std::is_floating_point_v<T>) {
                return;
            }
            for (const Case& c : cases) {
                const std::vector<T> x = small_numbers<T>(numel_of(c.shape), static_cast<unsigned>(++round));
                const Values wide(x.begin(), x.end());
                for (const Layout layout : all_layouts) {
                    const TensorPtr t = make<T>(c.shape, x, layout);
                    const bool keep = round % 2 == 0;
                    const TensorPtr y(row.reduce(t.get(), c.axes, keep));
                    const std::string name = std::string(row.name) + "/" + dtype_name(dtype_code<T>) + "/" +
                                             name_of(layout) + "/" + shape_text(c.shape);
                    EXPECT_EQ(y->Dtype(), result_dtype(row.kind, dtype_code<T>)) << name;
                    EXPECT_EQ(y->ndim() == t->ndim(), keep || c.shape.empty()) << name;
                    expect_close(doubles_of(y.get()), reference(row, wide, c.shape, c.axes),
                                 sizeof(T) == 8 && std::is_floating_point_v<T> ? 1e-14 : 1e-6, name);
                }
            }
        });
    }
}

// Long enough for several chunks of every form, and for threads.
const Case long_cases[] = {
    {{40001}, {}}, {{3, 12011}, {1}}, {{1031, 67}, {0}}, {{5, 700, 19}, {1}}, {{100, 9, 40}, {2, 0}}};

TEST(Reductions, LongOnesAreAccurateAndTheSameUnderAnyTeam) {
    for (const Row& row : rows) {
        for (const Case& c : long_cases) {
            const std::string name = std::string(row.name) + "/" + shape_text(c.shape);
            const bool product = row.reduce == prod;
            Values x = random_doubles(numel_of(c.shape), 5, product ? 0.999 : -1, product ? 1.001 : 3);
            const std::vector<float> narrow(x.begin(), x.end());
            x.assign(narrow.begin(), narrow.end());
            const Values expected = reference(row, x, c.shape, c.axes);
            const TensorPtr t = make<float>(c.shape, narrow);
            const TensorPtr y(row.reduce(t.get(), c.axes, false));
            expect_close(doubles_of(y.get()), expected, product ? 3e-5 : 1e-6, name);
            for (const Layout layout : all_layouts) {
                const TensorPtr laid = make<float>(c.shape, narrow, layout);
                EXPECT_EQ(bytes_of(TensorPtr(row.reduce(laid.get(), c.axes, false))), bytes_of(y))
                    << name << name_of(layout);
                expect_same_bits([&] { return row.reduce(laid.get(), c.axes, false); }, name, {1, 7});
            }
        }
    }
}

// Every order of axes in memory, with gaps and with elements that stand for many, reduced over sets of axes.
TEST(Reductions, BitsDependOnTheElementsAlone) {
    const Dims shapes[] = {{5, 3, 1, 301}, {130, 9, 2, 4}, {2, 2100, 3, 2}};
    unsigned round = 0;
    for_types(TypeList<float, double, Complex<float>>{}, [&]<typename T>() {
        for (const Dims& shape : shapes) {
            std::vector<int> order{0, 1, 2, 3};
            do {
                Dims memory;
                for (const int axis : order) {
                    memory.push_back(shape[static_cast<std::size_t>(axis)] + (axis == order[3] ? 0 : 1));
                }
                const TensorPtr whole = random_tensor(memory, dtype_code<T>, 7);
                Dims strides(4);
                for (std::size_t i = 0; i < 4; ++i) {
                    strides[static_cast<std::size_t>(order[i])] = whole->Strides()[i];
                }
                strides[1] = order[0] == 1 ? 0 : strides[1];
                const TensorPtr t(share_storage_tensor(whole->getStorage(), shape, strides, dtype_code<T>, 0));
                const TensorPtr dense(t->clone());
                for (unsigned set = 1 + round++ % 5; set < 16; set += 5) {
                    Axes axes;
                    for (int axis = 0; axis < 4; ++axis) {
                        if ((set >> axis & 1U) != 0) {
                            axes.push_back(axis);
                        }
                    }
                    for (const Row& row : rows) {
                        if ((t->isComplexType() && row.kind != Kind::total) || row.kind == Kind::truth) {
                            continue;
                        }
                        ASSERT_EQ(bytes_of(TensorPtr(row.reduce(t.get(), axes, false))),
                                  bytes_of(TensorPtr(row.reduce(dense.get(), axes, false))))
                            << row.name << " " << dtype_name(dtype_code<T>) << shape_text(shape) << shape_text(strides)
                            << set;
                    }
                }
            } while (std::next_permutation(order.begin(), order.end()));
        }
    });
    // Large enough to be copied first.
    const TensorPtr large = random_tensor({300, 90}, dtype::float32, 8, Layout::transposed);
    EXPECT_EQ(bytes_of(TensorPtr(sum(large.get()))), bytes_of(TensorPtr(sum(TensorPtr(large->clone()).get()))));
}

// The correction comes last, and a number in the place of keep_dims does not compile.
#define SERVED(call) (requires(Tensor * x, Third third) { call; } ? 1 : 0)
template <typename Third>
constexpr int served_with = SERVED(var(x, {0}, third)) + SERVED(std_dev(x, {0}, third)) +
                            SERVED(ornik::std(x, {0}, third)) + SERVED(var_grad(x, x, {0}, third)) +
                            SERVED(std_dev_grad(x, x, {0}, third)) + SERVED(std_grad(x, x, {0}, third));
#undef SERVED
static_assert(served_with<bool> == 6 && served_with<double> == 0 && served_with<int> == 0);

TEST(Reductions, ErrorOfASumGrowsSlowly) {
    const std::int64_t n = 3'000'000;  // About 2 to the power 22: as many roundings of half a unit.
    const TensorPtr t(Tensor::full({n}, 0.1F, 0, dtype::float32));
    const double exact = static_cast<double>(0.1F) * static_cast<double>(n);
    EXPECT_NEAR(doubles_of(TensorPtr(sum(t.get())).get())[0], exact, exact * 22 * 0x1p-24);
    EXPECT_NEAR(doubles_of(TensorPtr(cumsum(t.get(), 0)).get())[static_cast<std::size_t>(n - 1)], exact, exact * 6e-8);
    const TensorPtr shifted = make<float>({4}, {1e4F + 1, 1e4F + 2, 1e4F + 3, 1e4F + 4});
    EXPECT_EQ(values_of<float>(TensorPtr(var(shifted.get(), {}, false, 0)))[0], 1.25F);
}

TEST(Reductions, IntegersAddUpInWideTypesAndComplexNumbersByParts) {
    const TensorPtr bytes(Tensor::full({1000}, 127, 0, dtype::int8));
    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(sum(bytes.get())))[0], 127000);
    using C = Complex<double>;
    const TensorPtr z = make<C>({2, 2}, {{1, 2}, {3, -1}, {0, 1}, {2, 2}}, Layout::transposed);
    EXPECT_EQ(values_of<C>(TensorPtr(sum(z.get(), {0}))), (std::vector<C>{{1, 3}, {5, 1}}));
    EXPECT_EQ(values_of<C>(TensorPtr(prod(z.get(), {1}))), (std::vector<C>{{5, 5}, {-2, 2}}));
    EXPECT_EQ(values_of<C>(TensorPtr(mean(z.get())))[0], C(1.5, 1));
    EXPECT_EQ(values_of<C>(TensorPtr(cumsum(z.get(), 0))), (std::vector<C>{{1, 2}, {3, -1}, {1, 3}, {5, 1}}));
    EXPECT_NEAR(values_of<double>(TensorPtr(l2_norm(z.get())))[0], std::sqrt(24.0), 1e-14);
    const TensorPtr g = make<C>({2}, {{1, 1}, {0, 2}});
    EXPECT_EQ(values_of<C>(TensorPtr(prod_grad(g.get(), z.get(), {1}))),
              (std::vector<C>{{2, 4}, {3, -1}, {4, 4}, {2, 0}}));
}

TEST(Reductions, SpecialValues) {
    const auto one = [](Tensor* y) { return doubles_of(TensorPtr(y).get())[0]; };
    // NaN in the first chunk, in a later one, and in a column; the first of two NaN is the extreme.
    for (const Dims& shape : {Dims{6000}, Dims{6000, 5}}) {
        for (const std::int64_t at : {3, 5500}) {
            const std::int64_t width = numel_of(shape) / 6000;
            Values x = random_doubles(numel_of(shape), 3);
            x[static_cast<std::size_t>(at * width)] = not_a_number;
            x[static_cast<std::size_t>(5700 * width)] = not_a_number;
            const TensorPtr t = make<double>(shape, x);
            for (const Row& row : rows) {
                const double y = one(row.reduce(t.get(), {0}, false));
                EXPECT_TRUE(row.kind == Kind::place   ? y == static_cast<double>(at)
                            : row.kind == Kind::truth ? y == 1
                                                      : std::isnan(y))
                    << row.name << " " << at;
            }
        }
    }
    EXPECT_EQ(one(logsumexp(make<double>({2}, {1000, 1000}).get())), 1000 + std::log(2.0));
    EXPECT_EQ(one(logsumexp(make<double>({2}, {-inf, -inf}).get())), -inf);
    EXPECT_EQ(one(logsumexp(make<float>({2}, {float(inf), 0}).get())), inf);
    const TensorPtr unit = make<double>({}, {1}), endless = make<double>({4}, {1, 2, inf, 0});
    expect_close(values_of<double>(TensorPtr(logsumexp_grad(unit.get(), endless.get()))), {0, 0, not_a_number, 0}, 0,
                 "logsumexp_grad");
    EXPECT_EQ(values_of<double>(TensorPtr(logsumexp_grad(unit.get(), make<double>({2}, {-inf, -inf}).get()))),
              (Values{0, 0}));
    // Means of integers do not wrap.
    constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max(), least = -most - 1;
    EXPECT_EQ(one(mean(make<std::int64_t>({3}, {most, most, 2}).get())), double{0x1p64F / 3});
    EXPECT_EQ(one(mean(make<std::int64_t>({4}, {most, 9, -most, -1}).get())), 2);
    for (const Axes& axes : {Axes{0}, Axes{1}}) {
        const TensorPtr low(mean(TensorPtr(Tensor::full<std::int64_t>({5000, 7}, least, 0, dtype::int64)).get(), axes));
        for (const float value : values_of<float>(low)) {
            EXPECT_EQ(value, -0x1p63F);
        }
    }
    EXPECT_EQ(one(max(make<double>({2}, {-inf, -inf}).get())), -inf);
    EXPECT_TRUE(std::isnan(one(var(make<double>({1}, {3}).get()))));
    EXPECT_EQ(one(sum(TensorPtr(Tensor::broadcast_to(make<float>({1}, {2}).get(), {3, 50})).get())), 300);
}

TEST(Reductions, NoElements) {
    const TensorPtr one = make<float>({1}, {1});
    const TensorPtr none(share_storage_tensor(one->getStorage(), {2, 0}, {1, 1}, dtype::float32, 0));
    const double of_nothing[] = {0, 1, not_a_number, 0, not_a_number, not_a_number, not_a_number, -inf};
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        const TensorPtr empty(rows[i].reduce(none.get(), {0}, false));
        EXPECT_EQ(empty->Shape(), Dims{0}) << rows[i].name;
        if (i < std::size(of_nothing)) {
            const TensorPtr y(rows[i].reduce(none.get(), {1}, true));
            expect_close(doubles_of(y.get()), Values(2, of_nothing[i]), 0, rows[i].name);
        } else if (rows[i].kind != Kind::truth) {
            expect_error([&] { rows[i].reduce(none.get(), {}, false); }, "Can not reduce no elements.",
                         "ornik::" + std::string(rows[i].name), "src/tensor/tensor_math/reductions.cpp");
        }
    }
    EXPECT_EQ(TensorPtr(softmax(none.get(), 1))->Shape(), (Dims{2, 0}));
    EXPECT_EQ(TensorPtr(cumsum(none.get(), 1))->Shape(), (Dims{2, 0}));
}

TEST(Reductions, Gradients) {
    const Dims shape{3, 2, 4};
    for (const Row& row : rows) {
        for (const Axes& axes : {Axes{}, Axes{1}, Axes{0, 2}}) {
            for (const bool keep : {false, true}) {
                if (row.gradient == nullptr) {
                    continue;
                }
                const Layout layout = all_layouts[axes.size() + 2 * static_cast<std::size_t>(keep)];
                const TensorPtr x = make<double>(shape, random_doubles(24, 8), layout);
                const TensorPtr y(row.reduce(x.get(), axes, keep));
                const TensorPtr g = make<double>(y->Shape(), random_doubles(y->Size(), 9), layout);
                expect_central_differences([&](Tensor* t) { return row.reduce(t, axes, keep); }, x, g,
                                           TensorPtr(row.gradient(g.get(), x.get(), axes, keep)), row.name);
            }
        }
    }
    // The same bits from a result that was kept.
    const TensorPtr x = make<double>(shape, random_doubles(24, 8), Layout::every_other);
    struct Kept {
        Reduction reduce;
        Gradient gradient;
        std::function<Tensor*(Tensor*, Tensor*, const Tensor*, const Axes&, bool)> from;
    };
    const auto deviation = [](Tensor* t, const Axes& axes, bool keep) { return std_dev(t, axes, keep, 1); };
    const auto deviation_grad = [](Tensor* grad, Tensor* t, const Axes& axes, bool keep) {
        return std_dev_grad(grad, t, axes, keep, 1);
    };
    const auto deviation_grad_from = [](Tensor* grad, Tensor* t, const Tensor* y, const Axes& axes, bool keep) {
        return std_dev_grad_from(grad, t, y, axes, keep, 1);
    };
    for (const Kept& row : {Kept{l2_norm, l2_norm_grad, l2_norm_grad_from},
                            {logsumexp, logsumexp_grad, logsumexp_grad_from},
                            {deviation, deviation_grad, deviation_grad_from},
                            {max, max_grad, extreme_grad_from},
                            {min, min_grad, extreme_grad_from}}) {
        for (const Axes& axes : {Axes{}, Axes{1}, Axes{0, 2}}) {
            for (const bool keep : {false, true}) {
                const TensorPtr y(row.reduce(x.get(), axes, keep));
                const TensorPtr g = make<double>(y->Shape(), random_doubles(y->Size(), 9), Layout::reversed);
                const TensorPtr kept = make<double>(y->Shape(), values_of<double>(y), Layout::transposed);
                EXPECT_EQ(bytes_of(TensorPtr(row.from(g.get(), x.get(), kept.get(), axes, keep))),
                          bytes_of(TensorPtr(row.gradient(g.get(), x.get(), axes, keep))));
                // It is the kept one that counts.
                kept->add_scalar_inplace(1.0);
                EXPECT_NE(bytes_of(TensorPtr(row.from(g.get(), x.get(), kept.get(), axes, keep))),
                          bytes_of(TensorPtr(row.gradient(g.get(), x.get(), axes, keep))));
            }
        }
    }
    // Ties share; zeros stop no product.
    const TensorPtr tied = make<double>({4}, {3, 1, 3, 0}), g = make<double>({}, {6});
    EXPECT_EQ(values_of<double>(TensorPtr(max_grad(g.get(), tied.get()))), (Values{3, 0, 3, 0}));
    EXPECT_EQ(values_of<double>(TensorPtr(prod_grad(g.get(), tied.get()))), (Values{0, 0, 0, 54}));
    const TensorPtr none(Tensor::zeros({3}, 0, dtype::float64));
    EXPECT_EQ(values_of<double>(TensorPtr(l2_norm_grad(g.get(), none.get()))), (Values{0, 0, 0}));
}

}  // namespace
}  // namespace ornik::test
