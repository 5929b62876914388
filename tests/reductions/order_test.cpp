// Along one axis: running sums and products, softmax, and everything about sorted order.
#include <cstring>
#include <numeric>

#include "hardware/cpu/elements/cpu_exp.h"
#include "reference.h"
#include "tensor/tensor_math/reductions.h"
#include "tensor/tensor_math/sorting.h"

namespace ornik::test {
namespace {

// The runs of a tensor along an axis, each given to `change`, which returns what stands in its place.
template <typename Change>
Values by_runs(const Values& x, const Dims& shape, int axis, const Change& change) {
    Values result(x.size());
    for (const auto& run : groups(shape, {axis})) {
        Values values;
        for (const std::size_t place : run) {
            values.push_back(x[place]);
        }
        values = change(values);
        for (std::size_t i = 0; i < run.size(); ++i) {
            result[run[i]] = values[i];
        }
    }
    return result;
}

struct Row {
    const char* name;
    Tensor* (*apply)(Tensor*, int);
    Values (*reference)(const Values&);
    bool float_only;
    Tensor* (*gradient)(Tensor* g, Tensor* x, Tensor* y, int axis);
};

Values powers(const Values& v) {
    Values y = v;
    const double highest = *std::max_element(v.begin(), v.end());
    std::transform(v.begin(), v.end(), y.begin(), [&](double x) { return std::exp(x - highest); });
    const double sum = std::accumulate(y.begin(), y.end(), 0.0);
    std::transform(y.begin(), y.end(), y.begin(), [&](double x) { return x / sum; });
    return y;
}

template <typename Operation>
Values running(const Values& v) {
    Values y(v.size());
    std::partial_sum(v.begin(), v.end(), y.begin(), Operation());
    return y;
}

const Row rows[] = {
    {"cumsum", cumsum, running<std::plus<>>, false,
     [](Tensor* g, Tensor*, Tensor*, int axis) { return cumsum_grad(g, axis); }},
    {"cumprod", cumprod, running<std::multiplies<>>, false,
     [](Tensor* g, Tensor* x, Tensor*, int axis) { return cumprod_grad(g, x, axis); }},
    {"softmax", softmax, powers, true,
     [](Tensor* g, Tensor*, Tensor* y, int axis) { return softmax_grad(g, y, axis); }},
    {"log_softmax", log_softmax,
     [](const Values& v) {
         Values y = powers(v);
         std::transform(y.begin(), y.end(), y.begin(), [](double p) { return std::log(p); });
         return y;
     },
     true, [](Tensor* g, Tensor*, Tensor* y, int axis) { return log_softmax_grad(g, y, axis); }},
};

TEST(AlongAnAxis, EveryOperationDtypeLayoutAndAxis) {
    const Dims shape{3, 5, 4};
    for (const Row& row : rows) {
        for_types(RealTypes{}, [&]<typename T>() {
            if (row.float_only && !std::is_floating_point_v<T>) {
                return;
            }
            const std::vector<T> x = small_numbers<T>(60, 3);
            for (const int axis : {0, 1, -1}) {
                for (const Layout layout : all_layouts) {
                    const TensorPtr y(row.apply(make<T>(shape, x, layout).get(), axis));
                    const std::string name =
                        std::string(row.name) + "/" + dtype_name(dtype_code<T>) + "/" + name_of(layout);
                    EXPECT_EQ(y->Dtype(), std::is_integral_v<T> ? dtype::int64 : dtype_code<T>) << name;
                    expect_close(doubles_of(y.get()), by_runs(Values(x.begin(), x.end()), shape, axis, row.reference),
                                 std::is_same_v<T, float> ? 1e-6 : 1e-13, name);
                }
            }
        });
    }
}

TEST(AlongAnAxis, LongRunsAreAccurateAndTheSameUnderAnyTeam) {
    for (const Row& row : rows) {
        for (const Dims& shape : {Dims{150001}, Dims{4, 9001}, Dims{2100, 70}}) {
            const int axis = shape[0] == 4 ? 1 : 0;
            const bool product = row.apply == cumprod;
            const Values wide = random_doubles(numel_of(shape), 4, product ? 0.999 : -1, product ? 1.001 : 3);
            const std::vector<float> x(wide.begin(), wide.end());
            const TensorPtr t = make<float>(shape, x);
            const std::string name = std::string(row.name) + "/" + shape_text(shape);
            expect_close(doubles_of(TensorPtr(row.apply(t.get(), axis)).get()),
                         by_runs(Values(x.begin(), x.end()), shape, axis, row.reference), 1e-6, name);
            expect_same_bits([&] { return row.apply(t.get(), axis); }, name);
            for (const Layout layout : all_layouts) {
                EXPECT_EQ(bytes_of(TensorPtr(row.apply(make<float>(shape, x, layout).get(), axis))),
                          bytes_of(TensorPtr(row.apply(t.get(), axis))))
                    << name << name_of(layout);
            }
        }
    }
}

TEST(AlongAnAxis, Gradients) {
    for (const Row& row : rows) {
        for (const int axis : {0, -1}) {
            Values start = random_doubles(12, 12);
            start[1] = start[2] = start[7] = 0;  // Products with one zero and with two.
            const TensorPtr x = make<double>({3, 4}, start, Layout::transposed);
            const TensorPtr g = make<double>({3, 4}, random_doubles(12, 13), Layout::reversed);
            const TensorPtr y(row.apply(x.get(), axis));
            expect_central_differences([&](Tensor* t) { return row.apply(t, axis); }, x, g,
                                       TensorPtr(row.gradient(g.get(), x.get(), y.get(), axis)), row.name);
        }
    }
}

TEST(AlongAnAxis, ManyRowsHaveTheBitsOfFew) {
    // Together more than caches hold; rows that begin anywhere in a cache line.
    constexpr std::int64_t count = 6400, n = 1001, few = 3;
    const TensorPtr x = make<float>({count, n}, std::vector<float>(count * n, 0.25F));
    float* const first = static_cast<float*>(x->getRawData());
    for (std::int64_t i = 0; i < count * n; ++i) {
        first[i] = static_cast<float>(i * 7919 % 1009) / 1009.0F;
    }
    const auto bytes = static_cast<std::size_t>(few * n) * sizeof(float);
    for (const Row& row : {rows[2], rows[3]}) {
        const TensorPtr y(row.apply(x.get(), 1));
        const TensorPtr g(row.gradient(x.get(), x.get(), y.get(), 1));
        for (const std::int64_t at : {std::int64_t{0}, count / 2 - 1, count - few}) {
            const TensorPtr part = make<float>({few, n}, std::vector<float>(first + at * n, first + (at + few) * n));
            const TensorPtr alone(row.apply(part.get(), 1));
            const TensorPtr gradient(row.gradient(part.get(), part.get(), alone.get(), 1));
            EXPECT_EQ(std::memcmp(static_cast<float*>(y->getRawData()) + at * n, alone->getRawData(), bytes), 0)
                << row.name << at;
            EXPECT_EQ(std::memcmp(static_cast<float*>(g->getRawData()) + at * n, gradient->getRawData(), bytes), 0)
                << row.name << at;
        }
    }
}

TEST(AlongAnAxis, SpecialValues) {
    const TensorPtr t = make<double>({5}, {1, inf, 2, -inf, 3});
    expect_close(values_of<double>(TensorPtr(cumsum(t.get(), 0))), {1, inf, inf, not_a_number, not_a_number}, 0, "inf");
    const TensorPtr far = make<float>({4}, {-1000, 1000, -std::numeric_limits<float>::infinity(), 1000});
    EXPECT_EQ(values_of<float>(TensorPtr(softmax(far.get(), 0))), (std::vector<float>{0, 0.5F, 0, 0.5F}));
    const TensorPtr undefined = make<double>({3}, {1, not_a_number, 2});
    for (const Row& row : {rows[2], rows[3]}) {
        expect_close(values_of<double>(TensorPtr(row.apply(undefined.get(), 0))), Values(3, not_a_number), 0, row.name);
    }
}

TEST(AlongAnAxis, ExponentialsWithinOneUlpOverTheWholeDomain) {
    for_types(TypeList<float, double>{}, []<typename T>() {
        const T lowest = std::log(std::numeric_limits<T>::min());
        std::vector<T> x;
        for (int i = 0; i < 100003; ++i) {
            x.push_back(lowest * T(1.2) * static_cast<T>(i) / T(100003));
        }
        std::vector<T> y(x.size());
        device::cpu::exp_shifted(x.data(), T(0), y.data(), std::ssize(x));
        for (std::size_t i = 0; i < x.size(); ++i) {
            const long double exact = std::exp(static_cast<long double>(x[i]));
            const long double ulp = std::max(exact * static_cast<long double>(std::numeric_limits<T>::epsilon()),
                                             static_cast<long double>(std::numeric_limits<T>::denorm_min()));
            ASSERT_LE(std::abs(static_cast<long double>(y[i]) - exact), ulp) << x[i];
        }
    });
}

// ---- Order ----

struct Sorted {
    explicit Sorted(const std::vector<Tensor*>& tensors) : values(tensors[0]), places(tensors[1]) {}
    TensorPtr values, places;
};

// Places of a run in stable order, NaN last.
std::vector<std::size_t> places_in_order(const Values& v, bool descending) {
    std::vector<std::size_t> places(v.size());
    std::iota(places.begin(), places.end(), std::size_t{0});
    std::stable_sort(places.begin(), places.end(), [&](std::size_t a, std::size_t b) {
        if (std::isnan(v[a]) || std::isnan(v[b])) {
            return !std::isnan(v[a]);
        }
        return descending ? v[a] > v[b] : v[a] < v[b];
    });
    return places;
}

TEST(Order, SortIsStableForEveryDtypeLayoutAndLength) {
    for_types(RealTypes{}, []<typename T>() {
        // Below and beyond the length of insertion; many equal elements, and elements far apart.
        for (const Dims& shape : {Dims{3, 17, 4}, Dims{4, 300, 3}, Dims{2, 1500, 1}}) {
            std::vector<T> x;
            unsigned round = 0;
            for (const double value : random_doubles(numel_of(shape), 6, -100, 100)) {
                const double scaled = ++round % 3 == 0 ? value * 1e4 : std::round(value / 4);
                x.push_back(static_cast<T>(std::is_floating_point_v<T>
                                               ? scaled
                                               : static_cast<double>(static_cast<std::int64_t>(scaled) % 128 +
                                                                     (std::is_unsigned_v<T> ? 128 : 0))));
                if constexpr (std::is_floating_point_v<T>) {
                    x.back() = round % 11 == 0   ? std::numeric_limits<T>::quiet_NaN()
                               : round % 13 == 0 ? -std::numeric_limits<T>::infinity()
                               : round % 7 == 0  ? (round % 2 == 0 ? T(0) : -T(0))
                                                 : x.back();
                }
            }
            const Values wide(x.begin(), x.end());
            for (const bool descending : {false, true}) {
                for (const Layout layout : all_layouts) {
                    const TensorPtr t = make<T>(shape, x, layout);
                    const Sorted got(sort(t.get(), 1, descending));
                    const std::string name = "sort/" + dtype_name(dtype_code<T>) + "/" + name_of(layout);
                    const auto in_order = [&](bool of_values) {
                        return by_runs(wide, shape, 1, [&](const Values& v) {
                            Values result;
                            for (const std::size_t place : places_in_order(v, descending)) {
                                result.push_back(of_values ? v[place] : static_cast<double>(place));
                            }
                            return result;
                        });
                    };
                    expect_close(doubles_of(got.places.get()), in_order(false), 0, name);
                    expect_close(doubles_of(got.values.get()), in_order(true), 0, name);
                    EXPECT_EQ(values_of<std::int64_t>(TensorPtr(argsort(t.get(), -2, descending))),
                              values_of<std::int64_t>(got.places));
                    for (const std::int64_t k : {std::int64_t{0}, std::int64_t{5}, shape[1]}) {
                        const Sorted top(topk(t.get(), k, 1, descending));
                        const TensorPtr first(share_storage_tensor(got.places->getStorage(), {shape[0], k, shape[2]},
                                                                   got.places->Strides(), dtype::int64, 0));
                        EXPECT_EQ(values_of<std::int64_t>(top.places), values_of<std::int64_t>(first)) << name << k;
                    }
                }
            }
        }
    });
}

TEST(Order, Unique) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const TensorPtr x = make<float>({2, 4}, {3, nan, -1, 3, 0, -0.0F, nan, 3}, Layout::transposed);
    const std::vector<Tensor*> got = unique(x.get());
    const TensorPtr values(got[0]), inverse(got[1]), counts(got[2]);
    expect_close(doubles_of(values.get()), {-1, 0, 3, not_a_number}, 0, "values");
    EXPECT_EQ(inverse->Shape(), x->Shape());
    EXPECT_EQ(values_of<std::int64_t>(inverse), (std::vector<std::int64_t>{2, 3, 0, 2, 1, 1, 3, 2}));
    EXPECT_EQ(values_of<std::int64_t>(counts), (std::vector<std::int64_t>{1, 2, 3, 2}));
}

TEST(Order, SearchSorted) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const TensorPtr row = make<float>({4}, {1, 2, 2, 5}, Layout::every_other);
    const TensorPtr square = make<float>({2, 2}, {1, 3, 0, 9}, Layout::transposed);
    const TensorPtr values = make<float>({2, 3}, {0, 2, 6, 5, 1, nan}, Layout::transposed);
    const auto places = [&](const TensorPtr& sorted, bool right) {
        return doubles_of(TensorPtr(searchsorted(sorted.get(), values.get(), right)).get());
    };
    EXPECT_EQ(places(row, false), (Values{0, 1, 4, 3, 0, 4}));
    EXPECT_EQ(places(row, true), (Values{0, 3, 4, 4, 1, 4}));
    EXPECT_EQ(places(square, false), (Values{0, 1, 2, 1, 1, 2}));
}

}  // namespace
}  // namespace ornik::test
