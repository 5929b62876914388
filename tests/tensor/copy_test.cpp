// Conversion between dtypes, copies and the overlap test.
#include <cmath>
#include <limits>
#include <random>
#include <set>

#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/borrowed.h"
#include "tensor/overlap.h"
#include "tensor_math/elements.h"

namespace ornik::test {
namespace {

constexpr const char* core_file = "src/tensor/tensor_core.cpp";

// The conversion rule, by way of long double, whose range holds every value used here exactly.
template <typename To, typename From>
To expected_conversion(From value) {
    if constexpr (std::is_same_v<To, bool>) {
        return !(value == From(0));
    } else if constexpr (is_complex<From> && !is_complex<To>) {
        return expected_conversion<To>(value.real);
    } else if constexpr (std::is_floating_point_v<From> && std::is_integral_v<To>) {
        const auto wide = static_cast<long double>(value);
        const auto low = static_cast<long double>(std::numeric_limits<To>::min());
        const auto high = static_cast<long double>(std::numeric_limits<To>::max());
        return std::isnan(wide) ? To(0) : static_cast<To>(std::trunc(std::fmin(std::fmax(wide, low), high)));
    } else {
        return to<To>(value);
    }
}

template <typename T>
std::vector<T> edge_values() {
    std::vector<T> values = counted<T>(9, -3);
    if constexpr (std::is_floating_point_v<T>) {
        const T inf = std::numeric_limits<T>::infinity();
        for (const double x : {-0.5, 0.5, 127.5, 255.9, -128.9, 256.0, 32768.0, 2147483648.0, -2147483648.0, 9.3e18,
                               -9.3e18, 1e30, -1e30}) {
            values.push_back(static_cast<T>(x));
        }
        values.insert(values.end(), {inf, -inf, std::numeric_limits<T>::quiet_NaN()});
    } else if constexpr (std::is_integral_v<T>) {
        values.insert(values.end(), {std::numeric_limits<T>::min(), std::numeric_limits<T>::max()});
    }
    return values;
}

TEST(Conversion, EveryPairOfDtypesInEveryLayout) {
    for_types(AllTypes{}, []<typename From>() {
        const std::vector<From> values = edge_values<From>();
        const auto n = static_cast<std::int64_t>(values.size());
        for_types(AllTypes{}, [&]<typename To>() {
            for (const Layout layout : all_layouts) {
                const TensorPtr source = make<From>({1, n, 1}, values, layout);
                const TensorPtr converted(source->astype(dtype_code<To>));
                const std::vector<To> result = values_of<To>(converted);
                ASSERT_EQ(converted->Dtype(), dtype_code<To>);
                EXPECT_NE(converted->getStorage(), source->getStorage());
                for (std::size_t i = 0; i < values.size(); ++i) {
                    EXPECT_TRUE(same<To>(result[i], expected_conversion<To>(values[i])))
                        << dtype_name(dtype_code<From>) << " to " << dtype_name(dtype_code<To>) << " " << i;
                }
            }
        });
    });
}

TEST(Conversion, IdentityAndForms) {
    const TensorPtr t = make<float>({2, 3}, {1, 2, 3, 4, 5, 6}, Layout::transposed);
    EXPECT_EQ(t->toDtype(dtype::float32, false), t.get());
    const TensorPtr copy(t->toDtype(dtype::float32, true));
    EXPECT_NE(copy->getStorage(), t->getStorage());
    EXPECT_EQ(values_of<float>(copy), values_of<float>(t));
    EXPECT_EQ(copy->contiguous(), copy.get());
    const TensorPtr dense(t->contiguous());
    EXPECT_NE(dense.get(), t.get());
    EXPECT_EQ(dense->Strides(), (Dims{3, 1}));
    EXPECT_FALSE(Borrowed::contiguous(copy.get()).is_copy());
    EXPECT_TRUE(Borrowed::of_dtype(copy.get(), dtype::int8).is_copy());

    for (const bool copy_flag : {false, true}) {
        const TensorPtr target(Tensor::zeros({2, 3}, 0, dtype::float32));
        t->CopyToTargetWithDtype(target.get(), dtype::float32, copy_flag);
        EXPECT_EQ(values_of<float>(target), values_of<float>(t));
    }
    const TensorPtr target(Tensor::zeros({3, 2}, 0, dtype::int64));
    t->CopyToTargetWithDtype(target.get(), dtype::int64, true);
    EXPECT_EQ(values_of<std::int64_t>(target), (std::vector<std::int64_t>{1, 2, 3, 4, 5, 6}));
    const std::int16_t raw[] = {5, -1, 3, 2, 7, 9};
    t->getMeta()->convert_dtype_and_copy_data(raw, dtype::int16);
    EXPECT_EQ(values_of<float>(t), (std::vector<float>{5, -1, 3, 2, 7, 9}));

    t->updateDevice(1000);
    EXPECT_EQ(t->astype(dtype::int8), nullptr);
}

TEST(Copy, EveryDtypeBetweenLayouts) {
    for_types(AllTypes{}, []<typename T>() {
        const std::vector<T> values = counted<T>(40 * 33, -600);
        for (const Layout from : all_layouts) {
            for (const Layout to : all_layouts) {
                const TensorPtr source = make<T>({40, 33}, values, from);
                const TensorPtr target = make_empty({40, 33}, dtype_code<T>, to);
                copy_tensor(source.get(), target.get());
                EXPECT_EQ(values_of<T>(target), values)
                    << dtype_name(dtype_code<T>) << "/" << name_of(from) << "/" << name_of(to);
            }
        }
    });
}

TEST(Copy, ScalarsSizesAndBroadcast) {
    const TensorPtr row = make<float>({3}, {1, 2, 3});
    const TensorPtr scalar(Tensor::zeros({}, 0, dtype::float32));
    copy_tensor(row.get(), scalar.get());
    EXPECT_EQ(scalar->Size(), 3);
    EXPECT_EQ(*static_cast<float*>(scalar->getRawData()), 3.0F);
    const TensorPtr matrix(Tensor::zeros({2, 3}, 0, dtype::int32));
    matrix->copy_from_(row.get());
    EXPECT_EQ(values_of<std::int32_t>(matrix), (std::vector<std::int32_t>{1, 2, 3, 1, 2, 3}));
    const TensorPtr halves = make<double>({2, 3}, {0.5, 1.5, -1.5, 4, 5, 6}, Layout::transposed);
    matrix->copy_from_(halves.get());
    EXPECT_EQ(values_of<std::int32_t>(matrix), (std::vector<std::int32_t>{0, 1, -1, 4, 5, 6}));
    const TensorPtr other(row->clone());
    other->updateDevice(1000);
    testing::internal::CaptureStdout();
    expect_error([&] { copy_tensor(row.get(), other.get()); }, "unsupported copy between devices", "ornik::copy_tensor",
                 core_file);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "(0 1000)\n");
}

// A tensor without axes takes the element count of what is copied into it, and stays one element wide.
TEST(Copy, ScalarsThatCountMore) {
    const TensorPtr many = make<float>({5000}, counted<float>(5000));
    const auto counting = [&] {
        TensorPtr scalar(Tensor::zeros({}, 0, dtype::float32));
        copy_tensor(many.get(), scalar.get());
        EXPECT_EQ(scalar->Size(), 5000);
        EXPECT_EQ(scalar->getMeta()->GetSize(), 5000);
        EXPECT_FALSE(scalar->is_contiguous());
        return scalar;
    };
    const TensorPtr s = counting();
    const auto one_element = [](const Tensor* t, const Dims& shape) {
        EXPECT_EQ(t->Shape(), shape);
        EXPECT_EQ(t->Size(), numel_of(shape));
        const std::vector<float> expected(static_cast<std::size_t>(t->Size()), 4999.0F);
        EXPECT_EQ(values_of<float>(t), expected);
        EXPECT_GE(t->getStorage()->getSize(), t->is_contiguous() ? t->Size() : 1);
    };
    one_element(TensorPtr(s->clone()).get(), {});
    one_element(TensorPtr(s->contiguous()).get(), {});
    one_element(TensorPtr(s->reshape_copy({50, 100})).get(), {50, 100});
    one_element(TensorPtr(s->view({5000})).get(), {5000});
    one_element(TensorPtr(TensorPtr(s->astype(dtype::int64))->astype(dtype::float32)).get(), {});
    const TensorPtr shaped = counting();
    shaped->updateShape({5000});
    one_element(shaped.get(), {5000});
    testing::internal::CaptureStdout();
    s->Print();
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("size: 5000\nis_contiguous: 0\n####Data#### \n data 0 : 4999, \n"), std::string::npos)
        << printed;
    s->fill_(3);
    EXPECT_EQ(*static_cast<float*>(s->getRawData()), 3);
    s->fill_rand_uniform_inplace(1);
    EXPECT_EQ(s->Size(), 1);
    EXPECT_LT(*static_cast<float*>(s->getRawData()), 1);

    // A refused copy leaves the count as it was; with the flag, the copy's own tests come first.
    const TensorPtr scalar(Tensor::zeros({}, 0, dtype::float32)), inside(many->select_ndim_without_copy({"3"}));
    const TensorPtr abroad(many->clone());
    abroad->updateDevice(1000);
    const std::string overlap = "copy tensors may have overlap mem.";
    const Refusal refusals[] = {
        {"copy_tensor", [&] { copy_tensor(abroad.get(), scalar.get()); }, "unsupported copy between devices"},
        {"copy_tensor", [&] { copy_tensor(many.get(), inside.get()); }, overlap},
        {"copy_tensor", [&] { many->CopyToTargetWithDtype(inside.get(), dtype::float32, true); }, overlap},
        {"Tensor::CopyToTargetWithDtype", [&] { many->CopyToTargetWithDtype(scalar.get(), dtype::float32, false); },
         "Tensors with different size : A( 5000 ) B:empty vector\n"},
    };
    testing::internal::CaptureStdout();
    expect_refusals(refusals, "ornik::", core_file);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "(1000 0)\n");
    EXPECT_EQ(scalar->Size(), 1);
    EXPECT_EQ(inside->Size(), 1);
    many->CopyToTargetWithDtype(scalar.get(), dtype::float32, true);
    one_element(TensorPtr(scalar->clone()).get(), {});
    EXPECT_EQ(scalar->Size(), 5000);
}

TEST(Copy, OverlapIsExact) {
    const TensorPtr matrix = make<std::int32_t>({4, 4}, counted<std::int32_t>(16));
    const auto view = [](const TensorPtr& of, const Dims& shape, const Dims& strides, std::int64_t offset) {
        return TensorPtr(share_storage_tensor(of->getStorage(), shape, strides, dtype::int32, offset));
    };
    copy_tensor(matrix.get(), matrix.get());
    copy_tensor(view(matrix, {4}, {4}, 0).get(), view(matrix, {4}, {4}, 3).get());
    copy_tensor(view(matrix, {4, 2}, {4, 1}, 0).get(), view(matrix, {4, 2}, {4, 1}, 2).get());
    EXPECT_EQ(values_of<std::int32_t>(matrix),
              (std::vector<std::int32_t>{0, 1, 0, 1, 4, 5, 4, 5, 8, 9, 8, 9, 12, 13, 12, 13}));
    const std::vector<std::int32_t> before = values_of<std::int32_t>(matrix);
    const TensorPtr five = view(matrix, {5}, {1}, 0), next = view(matrix, {5}, {1}, 2);
    const TensorPtr turned = view(matrix, {4, 4}, {1, 4}, 0);
    const Refusal refusals[] = {
        {"copy_tensor", [&] { copy_tensor(five.get(), next.get()); }, "copy tensors may have overlap mem."},
        {"copy_tensor", [&] { copy_tensor(turned.get(), matrix.get()); }, "copy tensors may have overlap mem."},
    };
    expect_refusals(refusals, "ornik::", core_file);
    EXPECT_EQ(values_of<std::int32_t>(matrix), before);

    // Random views of one buffer against the sets of places they touch.
    const TensorPtr buffer(Tensor::zeros({400}, 0, dtype::int32));
    std::mt19937 random(3);
    int partial = 0;
    for (int round = 0; round < 3000; ++round) {
        TensorPtr views[2];
        std::set<std::int64_t> places[2];
        for (int side = 0; side < 2; ++side) {
            Dims shape;
            Dims strides;
            for (std::size_t axis = random() % 4; axis > 0; --axis) {
                shape.push_back(random() % 4 + 1);
                strides.push_back(static_cast<std::int64_t>(random() % 41) - 20);
            }
            const std::int64_t offset = 190 + random() % 20;
            views[side] = view(buffer, shape, strides, offset);
            for_each_offset(shape, strides, [&](std::int64_t at) { places[side].insert(offset + at); });
        }
        std::vector<std::int64_t> common;
        std::set_intersection(places[0].begin(), places[0].end(), places[1].begin(), places[1].end(),
                              std::back_inserter(common));
        const Overlap found = memory_overlap(views[0].get(), views[1].get());
        EXPECT_EQ(found == Overlap::none, common.empty()) << round;
        partial += found == Overlap::partial ? 1 : 0;
    }
    EXPECT_GT(partial, 300);
    EXPECT_LT(partial, 2700);
}

}  // namespace
}  // namespace ornik::test
