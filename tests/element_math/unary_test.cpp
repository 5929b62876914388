// Unary operations: every row of the table.
#include "references.h"
#include "support/teams.h"

namespace ornik::test {
namespace {

struct Front {
    Tensor* (Tensor::*fresh)() = nullptr;
    void (Tensor::*in_place)() = nullptr;
    void (*into)(Tensor*, Tensor*) = nullptr;
    Tensor* (*grad)(Tensor*, Tensor*, Tensor*) = nullptr;
};

const Front& front_of(Unary operation) {
    static const std::map<Unary, Front> fronts = [] {
        std::map<Unary, Front> all;
#define FRESH(name, ...) all[Unary::name].fresh = &Tensor::name, all[Unary::name].into = ornik::name;
#define IN_PLACE(name, ...) all[Unary::name].in_place = &Tensor::name##_inplace;
#define GRAD(name, ...) all[Unary::name].grad = ornik::name##_grad;
        ORNIK_UNARY_OPERATIONS(FRESH)
        ORNIK_DIFFERENTIABLE_OPERATIONS(IN_PLACE)
        ORNIK_STEP_OPERATIONS(IN_PLACE)
        ORNIK_ROUNDING_OPERATIONS(IN_PLACE)
        ORNIK_BIT_OPERATIONS(IN_PLACE)
        ORNIK_DIFFERENTIABLE_OPERATIONS(GRAD)
        return all;
    }();
    return fronts.at(operation);
}

void for_each_operation(const std::function<void(Unary, const Row&, const UnaryReference&)>& visit) {
    for_each_row<Unary>(unary_references(), visit);
}

CLD evaluated(const UnaryReference& reference, CLD x, std::int64_t dtype) {
    return dtype >= dtype::complex64 && reference.complex != nullptr ? reference.complex(x) : reference.real(x.real());
}

// The dtype rule in words.
std::int64_t expected_dtype(const Row& row, std::int64_t dtype) {
    using operations::Result;
    const bool floats = row.result == Result::floating || row.result == Result::floating_part;
    const bool parts = row.result == Result::part || row.result == Result::floating_part;
    if (row.result == Result::boolean) {
        return dtype::boolean;
    }
    if (dtype < dtype::float32) {
        return !floats ? dtype : dtype == dtype::int64 ? dtype::float64 : dtype::float32;
    }
    return parts && dtype >= dtype::complex64 ? dtype - 2 : dtype;
}

// ---- Accuracy over the whole domain ----

template <typename T>
void check_accuracy(const std::vector<T>& arguments) {
    const auto n = static_cast<std::int64_t>(arguments.size());
    const TensorPtr in = make<T>({n}, arguments);
    for_each_operation([&](Unary operation, const Row& row, const UnaryReference& reference) {
        if (!operations::accepts(row, dtype_code<T>)) {
            return;
        }
        const TensorPtr out((in.get()->*front_of(operation).fresh)());
        const std::vector<CLD> got = wide_values(out.get());
        const double bound = sizeof(T) == 4 ? row.error32 : row.error64;
        LD worst = 0;
        std::size_t at = 0;
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            const LD exact = reference.real(arguments[i]);
            const bool absolute = sizeof(T) == 4 && arguments[i] < static_cast<T>(reference.absolute_below);
            const LD error = absolute ? std::fabs(got[i].real() - exact) / (-0x1p-23L * arguments[i]) * bound
                                      : ulps(static_cast<T>(got[i].real()), exact);
            at = error > worst ? i : at;
            worst = std::max(worst, error);
        }
        EXPECT_LE(worst, static_cast<LD>(bound)) << arguments[at] << " gives " << got[at];
    });
}

template <typename T>
std::vector<T> special_values() {
    using Limits = std::numeric_limits<T>;
    std::vector<T> values;
    for (const T x :
         {T(0), T(0.5), T(1), T(1.5), T(2), T(2.5), T(3.5), T(88.5), T(104), T(710), T(746), Limits::min(),
          Limits::denorm_min(), Limits::max(), Limits::epsilon(), Limits::infinity(), Limits::quiet_NaN()}) {
        values.insert(values.end(), {x, -x, std::nextafter(x, T(0)), std::nextafter(x, T(1e9))});
    }
    for (int i = -6000; i < 6000; ++i) {
        values.push_back(static_cast<T>(i) * T(0.013));
    }
    return values;
}

TEST(Unary, SinglePrecisionWithinItsBoundsOverTheWholeDomain) {
    std::vector<float> arguments = special_values<float>();
    for (std::uint64_t bits = 0; bits <= 0xffffffffU; bits += 12289) {
        arguments.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(bits)));
    }
    check_accuracy(arguments);
}

TEST(Unary, DoublePrecisionWithinItsBoundsOverTheWholeDomain) {
    std::vector<double> arguments = special_values<double>();
    std::mt19937_64 random(7);
    for (int i = 0; i < 60'000; ++i) {
        arguments.push_back(std::bit_cast<double>(random()));
        arguments.push_back(std::uniform_real_distribution<double>(-40, 40)(random));
        arguments.push_back(std::uniform_real_distribution<double>(-2, 2)(random));
    }
    check_accuracy(arguments);
}

// ---- Dtypes, layouts, forms ----

const Dims shape{2, 3, 4};

std::vector<CLD> arguments_for(std::int64_t dtype) {
    // Inside the domain of every function, for complex numbers off the branch cuts; whole numbers as they are.
    std::vector<CLD> values;
    for (int i = 0; i < 24; ++i) {
        const LD x = dtype < dtype::float32 ? i % 7 : 0.11L + 0.03L * i;
        values.emplace_back(x, 0.7L - 0.05L * i);
    }
    return values;
}

TEST(Unary, EveryDtypeInEveryLayoutAndForm) {
    for_each_operation([](Unary operation, const Row& row, const UnaryReference& reference) {
        const Front& front = front_of(operation);
        for (std::int64_t dtype = 0; dtype < dtype_count; ++dtype) {
            SCOPED_TRACE(name_of_dtype(dtype));
            const TensorPtr in = make_wide(dtype, shape, arguments_for(dtype));
            const std::string scope = "ornik::Tensor::" + std::string(row.name);
            if (!operations::accepts(row, dtype)) {
                const auto refusal = [&](const std::string& suffix) {
                    return row.name + suffix + "() is not supported for " + name_of_dtype(dtype) + " tensor.";
                };
                expect_error([&] { (in.get()->*front.fresh)(); }, refusal(""), scope, front_file);
                expect_error([&] { front.into(in.get(), in.get()); }, refusal(""), "ornik::" + std::string(row.name),
                             front_file);
                continue;
            }
            const TensorPtr expected((in.get()->*front.fresh)());
            ASSERT_EQ(expected->Dtype(), expected_dtype(row, dtype));
            ASSERT_EQ(expected->Shape(), shape);
            const std::vector<CLD> x = wide_values(in.get()), got = wide_values(expected.get());
            for (std::size_t i = 0; i < x.size(); ++i) {
                const bool flips = row.name == std::string("bitwise_not") && dtype == dtype::boolean;
                const CLD exact = held(flips ? 1.0L - x[i] : evaluated(reference, x[i], dtype), expected->Dtype());
                ASSERT_TRUE(matches(got[i], exact, expected->Dtype(), row, dtype >= dtype::complex64))
                    << x[i] << " gives " << got[i];
            }
            for (const Layout layout : all_layouts) {
                SCOPED_TRACE(name_of(layout));
                const TensorPtr laid = make_wide(dtype, shape, x, layout);
                const TensorPtr out = make_empty(shape, expected->Dtype(), Layout::transposed);
                front.into(laid.get(), out.get());
                EXPECT_EQ(bytes_of(out), bytes_of(expected));
                EXPECT_EQ(bytes_of(TensorPtr((laid.get()->*front.fresh)())), bytes_of(expected));
                if (front.in_place == nullptr) {
                    continue;
                }
                if (expected->Dtype() != dtype) {
                    expect_error([&] { (laid.get()->*front.in_place)(); }, "Not supported data type casting.",
                                 scope + "_inplace", front_file);
                } else {
                    (laid.get()->*front.in_place)();
                    EXPECT_EQ(bytes_of(laid), bytes_of(expected));
                }
            }
            Tensor nothing;
            nothing.initialize_none_tensor({2, 0}, dtype, 0, layout::dense);
            const TensorPtr none((nothing.*front.fresh)());
            EXPECT_EQ(none->Shape(), (Dims{2, 0}));
            front.into(&nothing, none.get());
            if (front.in_place != nullptr && none->Dtype() == dtype) {
                (nothing.*front.in_place)();
            }
            const TensorPtr one = make_wide(dtype, {}, {x[0]});
            EXPECT_EQ(bytes_of(TensorPtr((one.get()->*front.fresh)())),
                      bytes_of(expected).substr(0, static_cast<std::size_t>(expected->itemsize())));
        }
    });
}

// ---- The same bits whatever the place and the team ----

TEST(Unary, BitsDependOnTheElementAlone) {
    constexpr std::int64_t n = 33'001;
    std::vector<float> values;
    std::mt19937 random(3);
    for (std::int64_t i = 0; i < n; ++i) {
        values.push_back(i % 100 == 0 ? std::bit_cast<float>(static_cast<std::uint32_t>(random()))
                                      : std::uniform_real_distribution<float>(-4, 4)(random));
    }
    const TensorPtr in = make<float>({n}, values);
    for_each_operation([&](Unary operation, const Row& row, const UnaryReference&) {
        if (!operations::accepts(row, dtype::float32)) {
            return;
        }
        const auto compute = [&](std::int64_t from) {
            const TensorPtr part(
                share_storage_tensor(in->getStorage(), {n - from}, {1}, dtype::float32, in->StorageOffset() + from));
            return bytes_of(TensorPtr((part.get()->*front_of(operation).fresh)()));
        };
        const std::string expected = compute(0);
        const std::size_t item = expected.size() / n;
        expect_same_bits([&] { return (in.get()->*front_of(operation).fresh)(); });
        for (const std::int64_t from : {std::int64_t{3}, n - 13, n - 1}) {
            EXPECT_TRUE(compute(from) == expected.substr(static_cast<std::size_t>(from) * item)) << from;
        }
    });
}

// ---- Gradients against central differences of the references ----

TEST(Unary, GradientsAreThoseOfCentralDifferences) {
    for_each_operation([](Unary operation, const Row& row, const UnaryReference& reference) {
        const Front& front = front_of(operation);
        if (front.grad == nullptr) {
            return;
        }
        for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
            SCOPED_TRACE(name_of_dtype(dtype));
            const bool complex = dtype >= dtype::complex64;
            if (!operations::accepts(row, dtype)) {
                continue;
            }
            std::vector<CLD> points;
            std::vector<CLD> seeds;
            for (int i = 0; i < 24; ++i) {
                const LD x = reference.low + (reference.high - reference.low) * (i + 0.5L) / 24;
                points.emplace_back(x, complex ? 0.3L + 0.02L * i : 0);
                seeds.emplace_back(1.5L - 0.1L * i, complex ? 0.25L : 0);
            }
            const TensorPtr in = make_wide(dtype, shape, points, Layout::every_other);
            const TensorPtr out((in.get()->*front.fresh)());
            const TensorPtr grad = make_wide(out->Dtype(), shape, seeds, Layout::transposed);
            const TensorPtr result(front.grad(in.get(), out.get(), grad.get()));
            EXPECT_EQ(bytes_of(TensorPtr(front.grad(in.get(), nullptr, grad.get()))), bytes_of(result));
            ASSERT_EQ(result->Dtype(), dtype);
            const std::vector<CLD> x = wide_values(in.get());
            expect_gradient(result, wide_values(grad.get()),
                            [&](std::size_t i, CLD step) { return evaluated(reference, x[i] + step, dtype); });
        }
        const TensorPtr whole = make<std::int32_t>({1}, {1});
        expect_error([&] { front.grad(whole.get(), nullptr, whole.get()); },
                     row.name + std::string("_grad() is not supported for int32 tensor."),
                     "ornik::" + std::string(row.name) + "_grad", front_file);
    });
}

// A slope may be out of range where its product with the gradient is not.
TEST(Unary, GradientsOfTinyNumbers) {
    struct Case {
        Tensor* (*gradient)(Tensor*, Tensor*, Tensor*);
        LD (*slope)(LD x);
        LD x32, x64, seed32, seed64;
    };
    const Case cases[] = {
        {log_grad, [](LD x) { return 1 / x; }, 1e-42L, 3e-320L, 1e-6L, 1e-14L},
        {log2_grad, [](LD x) { return 1 / (x * std::log(2.0L)); }, 1e-42L, 3e-320L, 1e-6L, 1e-14L},
        {log10_grad, [](LD x) { return 1 / (x * std::log(10.0L)); }, 1e-42L, 3e-320L, 1e-6L, 1e-14L},
        {reciprocal_grad, [](LD x) { return -1 / (x * x); }, 1e-20L, 1e-155L, 1e-6L, 1e-6L},
        {rsqrt_grad, [](LD x) { return -0.5L / (x * std::sqrt(x)); }, 1e-30L, 1e-210L, 1e-12L, 1e-12L},
    };
    for (const Case& c : cases) {
        for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
            const bool narrow = dtype == dtype::float32 || dtype == dtype::complex64;
            const TensorPtr x = make_wide(dtype, {1}, {CLD(narrow ? c.x32 : c.x64)});
            const TensorPtr seed = make_wide(dtype, {1}, {CLD(narrow ? c.seed32 : c.seed64)});
            const CLD exact = c.slope(wide_values(x.get())[0].real()) * wide_values(seed.get())[0];
            const CLD got = wide_values(TensorPtr(c.gradient(x.get(), nullptr, seed.get())).get())[0];
            EXPECT_LT(std::abs(got / exact - CLD(1)), narrow ? 4e-7L : 1e-15L) << name_of_dtype(dtype) << got << exact;
        }
    }
}

// Rows are computed many elements together, and otherwise where some are out of the common.
TEST(Unary, AnElementsResultDependsOnNoOther) {
    std::vector<CLD> elements;
    for (const LD size :
         {0.01L, 0.4L, 1.0L, 2.9L, 3.1L, 20.0L, 79.0L, 81.0L, 1e3L, 1e6L, 1e-30L, 1e37L, 0.0L, 1 / 0.0L}) {
        for (int i = 0; i < 13; ++i) {
            elements.emplace_back(size * std::cos(1.0L * i), size * std::sin(1.0L * i));
        }
    }
    const auto n = static_cast<std::int64_t>(elements.size());
    for_each_operation([&](Unary operation, const Row& row, const UnaryReference&) {
        for (const std::int64_t dtype : {dtype::float32, dtype::float64, dtype::complex64, dtype::complex128}) {
            if (!operations::accepts(row, dtype)) {
                continue;
            }
            const TensorPtr together((make_wide(dtype, {n}, elements).get()->*front_of(operation).fresh)());
            const std::vector<CLD> got = wide_values(together.get());
            for (std::int64_t i = 0; i < n; ++i) {
                const TensorPtr one((make_wide(dtype, {1}, {elements[i]}).get()->*front_of(operation).fresh)());
                const CLD alone = wide_values(one.get())[0];
                const auto same = [](LD a, LD b) {
                    return (a == b && std::signbit(a) == std::signbit(b)) || (std::isnan(a) && std::isnan(b));
                };
                ASSERT_TRUE(same(got[i].real(), alone.real()) && same(got[i].imag(), alone.imag()))
                    << row.name << " of " << name_of_dtype(dtype) << ' ' << elements[i] << ": " << got[i] << ", alone "
                    << alone;
            }
        }
    });
}

// ---- Overlaps, special complex values ----

TEST(Unary, AnOutputThatOverlapsItsInput) {
    const TensorPtr whole = make<float>({9}, counted<float>(9, 1));
    const TensorPtr in(share_storage_tensor(whole->getStorage(), {8}, {1}, dtype::float32, 0));
    const TensorPtr out(share_storage_tensor(whole->getStorage(), {8}, {1}, dtype::float32, 1));
    sqr(in.get(), out.get());
    EXPECT_EQ(values_of<float>(whole), (std::vector<float>{1, 1, 4, 9, 16, 25, 36, 49, 64}));
}

TEST(Unary, AnyByteThatIsNotZeroIsTrue) {
    const TensorPtr bytes = make<std::uint8_t>({4}, {0, 1, 2, 255});
    const TensorPtr truths(share_storage_tensor(bytes->getStorage(), {4}, {1}, dtype::boolean, bytes->StorageOffset()));
    EXPECT_EQ(bytes_of(TensorPtr(truths->logical_not())), std::string("\1\0\0\0", 4));
}

TEST(Unary, ComplexValuesNearZeroAndFarOut) {
    using C = Complex<double>;
    const TensorPtr in = make<C>({4}, {{1e-20, 1e-19}, {-1e-20, 0}, {-800, 2}, {INFINITY, NAN}});
    const TensorPtr grown(in->expm1()), logarithm(in->log1p()), squashed(in->sigmoid());
    EXPECT_EQ(values_of<C>(grown)[0], C(1e-20, 1e-19));
    EXPECT_EQ(values_of<C>(logarithm)[1], C(-1e-20, 0));
    EXPECT_EQ(values_of<C>(squashed)[2], C(0, 0));
    EXPECT_EQ(values_of<bool>(TensorPtr(in->is_nan())), (std::vector<bool>{false, false, false, true}));
    EXPECT_EQ(values_of<bool>(TensorPtr(in->is_inf())), (std::vector<bool>{false, false, false, true}));
    EXPECT_EQ(values_of<bool>(TensorPtr(in->is_finite())), (std::vector<bool>{true, true, true, false}));
}

}  // namespace
}  // namespace ornik::test
