// dot, bmm and matmul4D: operands in every layout, aliasing, and what is refused in which order.
#include "elements.h"
#include "support/expect_error.h"
#include "support/products.h"

namespace ornik::test {
namespace {

constexpr const char* file = "src/tensor/tensor_math/tensor_math.cpp";

enum class Front { dot, bmm, matmul4D };
const Dims batches[] = {{}, {2}, {2, 3}};  // The leading axes of each.
std::string function_name(Front front) {
    constexpr const char* names[] = {"ornik::dot", "ornik::Tensor::bmm", "ornik::Tensor::matmul4D"};
    return names[static_cast<int>(front)];
}

void multiply(Front front, const TensorPtr& a, int ta, const TensorPtr& b, int tb, const TensorPtr& c, int accumulate) {
    switch (front) {
        case Front::dot:
            return Tensor::dot(a.get(), ta, b.get(), tb, c.get(), accumulate);
        case Front::bmm:
            return Tensor::bmm(a.get(), ta, b.get(), tb, c.get());
        case Front::matmul4D:
            return Tensor::matmul4D(a.get(), ta, b.get(), tb, c.get());
    }
}

Dims with_batch(Front front, std::int64_t rows, std::int64_t cols) {
    Dims shape = batches[static_cast<int>(front)];
    shape.insert(shape.end(), {rows, cols});
    return shape;
}

TEST(Products, EveryFrontEndFlagAndLayout) {
    int round = 0;
    const auto check = [&]<typename T>(Front front, int ta, int tb, int accumulate, Layout layout) {
        const ProductPlan plan{numel_of(batches[static_cast<int>(front)]), 3, 5, 4, ta != 0, tb != 0, accumulate != 0};
        const std::vector<T> x = counted<T>(plan.batch * 12, -20), y = counted<T>(plan.batch * 20, -7);
        const std::vector<T> old = counted<T>(plan.batch * 15, 100);
        const Layout layout_c = front == Front::bmm ? Layout::contiguous : all_layouts[round++ % 5];
        const TensorPtr a = make<T>(ta != 0 ? with_batch(front, 4, 3) : with_batch(front, 3, 4), x, layout);
        const TensorPtr b =
            make<T>(tb != 0 ? with_batch(front, 5, 4) : with_batch(front, 4, 5), y, all_layouts[(round + 3) % 5]);
        const TensorPtr c = make<T>(with_batch(front, 3, 5), old, layout_c);
        multiply(front, a, ta, b, tb, c, accumulate);
        EXPECT_TRUE(same(values_of<T>(c), naive(plan, x, y, old)))
            << function_name(front) << " " << dtype_name(dtype_code<T>) << " flags " << ta << tb << accumulate << " "
            << name_of(layout) << " into " << name_of(layout_c);
        EXPECT_TRUE(same(values_of<T>(a), x) && same(values_of<T>(b), y)) << "an operand was changed";
    };
    for (const Front front : {Front::dot, Front::bmm, Front::matmul4D}) {
        for (const Layout layout : all_layouts) {
            for (int flags = 0; flags < (front == Front::dot ? 8 : 4); ++flags) {
                for_types(TypeList<std::int8_t, float, Complex<float>>{}, [&]<typename T>() {
                    check.template operator()<T>(front, flags & 1, flags >> 1 & 1, flags >> 2, layout);
                });
            }
        }
    }
}

TEST(Products, TheOutputMayShareMemoryWithOperands) {
    struct Place {
        Dims strides;
        std::int64_t offset;
    };
    const Place places[] = {{{4, 1}, 0}, {{1, 4}, 0}, {{4, 1}, 8}, {{-4, -1}, 15}, {{8, 2}, 0}};
    const Place a_place{{4, 1}, 0};
    const Place b_place{{1, 4}, 16};
    for (const Place& c_place : places) {
        for (const int accumulate : {0, 1}) {
            const std::vector<std::int32_t> all = counted<std::int32_t>(32, -9);
            const TensorPtr whole(Tensor::empty({32}, 0, dtype::int32));
            std::copy(all.begin(), all.end(), static_cast<std::int32_t*>(whole->getRawData()));
            const auto view = [&](const Place& place) {
                return TensorPtr(
                    share_storage_tensor(whole->getStorage(), {4, 4}, place.strides, dtype::int32, place.offset));
            };
            const TensorPtr a = view(a_place), b = view(b_place), c = view(c_place);
            const std::vector<std::int32_t> values =
                naive<std::int32_t>({1, 4, 4, 4, false, false, accumulate != 0}, values_of<std::int32_t>(a),
                                    values_of<std::int32_t>(b), values_of<std::int32_t>(c));
            std::vector<std::int32_t> expected = all;
            std::size_t i = 0;
            for_each_offset({4, 4}, c_place.strides, [&](std::int64_t at) {
                expected[static_cast<std::size_t>(c_place.offset + at)] = values[i++];
            });
            Tensor::dot(a.get(), 0, b.get(), 0, c.get(), accumulate);
            EXPECT_EQ(values_of<std::int32_t>(whole), expected)
                << shape_text(c_place.strides) << c_place.offset << " " << accumulate;
        }
    }
    const std::vector<float> values = counted<float>(2 * 9, -4);
    const TensorPtr batch = make<float>({2, 3, 3}, values);
    Tensor::bmm(batch.get(), 0, batch.get(), 1, batch.get());
    EXPECT_EQ(values_of<float>(batch), naive<float>({2, 3, 3, 3, false, true, false}, values, values, values));
}

TEST(Products, WithoutInnerElementsTheSumIsZero) {
    for (const int accumulate : {0, 1}) {
        const TensorPtr c = make<double>({2, 3}, counted<double>(6, 1));
        const TensorPtr a(share_storage_tensor(c->getStorage(), {2, 0}, {1, 1}, dtype::float64, 0));
        const TensorPtr b(share_storage_tensor(c->getStorage(), {0, 3}, {3, 1}, dtype::float64, 0));
        Tensor::dot(a.get(), 0, b.get(), 0, c.get(), accumulate);
        EXPECT_EQ(values_of<double>(c), accumulate != 0 ? counted<double>(6, 1) : std::vector<double>(6));
    }
}

// ---- Refusals ----

struct Argument {
    Dims shape;
    std::int64_t dtype = dtype::float32;
    std::int64_t device = 0;
    bool expanded = false;
};

void expect_refused(Front front, const Argument& a, int ta, const Argument& b, int tb, const Argument& c,
                    const std::string& message) {
    std::vector<TensorPtr> tensors;
    for (const Argument& argument : {a, b, c}) {
        TensorPtr t(Tensor::full(argument.shape, 3, 0, argument.dtype));
        if (argument.expanded) {
            const TensorPtr row(Tensor::full({argument.shape.back()}, 3, 0, argument.dtype));
            t.reset(Tensor::broadcast_to(row.get(), argument.shape));
        }
        t->updateDevice(argument.device);
        tensors.push_back(std::move(t));
    }
    const auto call = [&] { multiply(front, tensors[0], ta, tensors[1], tb, tensors[2], 1); };
    EXPECT_EQ(error_text(call), located(message, function_name(front), file));
    for (const TensorPtr& t : tensors) {
        t->updateDevice(0);
        const TensorPtr values(t->astype(dtype::float64));
        EXPECT_EQ(values_of<double>(values),
                  std::vector<double>(static_cast<std::size_t>(t->Size()), t->isBool() ? 1.0 : 3.0));
    }
}

TEST(Products, RefusalsOfDotInTheirOrder) {
    const auto refused = [](const Argument& a, int ta, const Argument& b, int tb, const Argument& c,
                            const std::string& message) { expect_refused(Front::dot, a, ta, b, tb, c, message); };
    const Argument far{{3}, dtype::float64, 1000};
    refused(far, 0, {{4}}, 0, {{1}}, "Incompatible device for dot(),  A: 1000, B: 0, C: 0");
    refused({{3}}, 0, {{4}}, 0, far, "Incompatible device for dot(),  A: 0, B: 0, C: 1000");
    refused({{3}}, 0, {{5, 4}}, 0, {{3}}, "Only 2D tensors");
    refused({{2, 3}}, 0, {{2, 5, 4}}, 0, {{3}}, "Only 2D tensors");
    // Inner extents: axis of A, then of B, by flags.
    const Argument wrong{{9, 9}, dtype::float64};
    const auto inner = [](int a, int a_size, int b, int b_size) {
        return "Incompatible dims, input A shape[" + std::to_string(a) + "] " + std::to_string(a_size) +
               " should equal to input B shape[" + std::to_string(b) + "] " + std::to_string(b_size);
    };
    refused({{2, 3}}, 0, {{4, 3}}, 0, wrong, inner(1, 3, 0, 4));
    refused({{2, 3}}, 0, {{3, 4}}, 1, wrong, inner(1, 3, 1, 4));
    refused({{3, 2}}, 1, {{4, 3}}, 0, wrong, inner(0, 3, 0, 4));
    refused({{3, 2}}, 1, {{3, 4}}, 1, wrong, inner(0, 3, 1, 4));
    const auto outer = [](int a_size, int b, int b_size) {
        return "Incompatible dims,input A shape[1] " + std::to_string(a_size) + " should equal to input B shape[" +
               std::to_string(b) + "] " + std::to_string(b_size);
    };
    refused({{2, 3}}, 0, {{3, 4}}, 0, wrong, outer(3, 0, 3));
    refused({{3, 2}}, 1, {{4, 3}}, 1, {{4, 2}}, outer(2, 1, 3));
    refused({{2, 3}}, 0, {{4, 3}}, 1, {{2, 5}}, outer(3, 1, 3));
    refused({{3, 2}}, 1, {{3, 4}}, 0, {{4, 2}}, outer(2, 0, 3));
    refused({{2, 3}}, 0, {{3, 4}}, 0, {{8}, dtype::float64}, outer(3, 0, 3));
    const Argument wide{{2, 4}, dtype::float64};
    const Argument expanded{{2, 4}, dtype::float32, 0, true};
    refused({{2, 3}, dtype::float64}, 0, {{3, 4}}, 0, expanded, "Not same data type");
    refused({{2, 3}}, 0, {{3, 4}}, 0, wide, "Not same data type");
    refused({{2, 3}}, 0, {{3, 4}}, 0, expanded,
            "Output can not be an expanded view: shape ( 2, 4 ) , strides ( 0, 1 ) ");
}

TEST(Products, RefusalsOfBmmAndMatmul4DInTheirOrder) {
    const auto bmm = [](const Argument& a, const Argument& b, const Argument& c, const std::string& message) {
        expect_refused(Front::bmm, a, 0, b, 1, c, message);
    };
    const std::string batch = "Tensors should have same first two dim size";
    bmm({{5}}, {{2, 4, 3}}, {{9}, dtype::float32, 1000}, "Tensors in different devices");
    bmm({{2, 3}}, {{2, 4, 3}}, {{9}}, "Incompatible dims, input A has a shape of ( 2, 3 ) instead of 3 axes");
    bmm({{2, 2, 3}}, {{4, 3}}, {{9}}, "Incompatible dims, input B has a shape of ( 4, 3 ) instead of 3 axes");
    bmm({{2, 2, 3}}, {{3, 4, 9}}, {{9}}, "Incompatible dims, input C has a shape of ( 9 ) instead of 3 axes");
    bmm({{2, 2, 3}}, {{3, 4, 9}}, {{2, 2, 4}}, batch);
    bmm({{2, 2, 3}}, {{2, 4, 9}}, {{3, 2, 4}}, batch);
    bmm({{2, 2, 3}}, {{2, 4, 9}}, {{2, 5, 5}},
        "Incompatible dims, input A shape[1] 3 should equal to input B shape[1] 9");
    bmm({{2, 2, 3}}, {{2, 4, 3}}, {{2, 5, 5}, dtype::float32, 0, true},
        "Incompatible dims,input A shape[1] 3 : output should have a shape of ( 2, 4 ) , however it has ( 5, 5 ) ");
    bmm({{2, 2, 3}}, {{2, 4, 3}}, {{2, 2, 4}, dtype::float64, 0, true}, "Output for bmm should be contiguous.");
    bmm({{2, 2, 3}}, {{2, 4, 3}}, {{2, 2, 4}, dtype::float64}, "Not same data type");
    bmm({{2, 2, 3}}, {{2, 4, 3}, dtype::int32}, {{2, 2, 4}}, "Not same data type");

    const auto matmul = [](const Argument& a, const Argument& b, const Argument& c, const std::string& message) {
        expect_refused(Front::matmul4D, a, 1, b, 0, c, message);
    };
    const std::string types = "matmul() is not supported for different data type tensor.";
    const Argument a{{2, 2, 3, 4}};
    const Argument b{{2, 2, 3, 5}};
    matmul({{9}, dtype::boolean}, b, {{9}}, types);
    matmul(a, b, {{9}, dtype::float64, 1000}, types);
    matmul({{9}, dtype::boolean}, {{9}, dtype::boolean}, {{9}, dtype::boolean, 1000},
           "matmul() is not supported for bool tensor.");
    matmul({{9}}, b, {{9}, dtype::float32, 1000}, "Tensors in different devices, A: 0, B: 0, C: 1000");
    matmul({{2, 3, 4}}, b, {{9}}, "Incompatible dims, input A has a shape of ( 2, 3, 4 ) instead of 4 axes");
    matmul(a, {{9}}, {{9}}, "Incompatible dims, input B has a shape of ( 9 ) instead of 4 axes");
    matmul(a, {{3, 2, 9, 5}}, {{9}}, "Incompatible dims, input C has a shape of ( 9 ) instead of 4 axes");
    matmul(a, {{2, 3, 9, 5}}, {{2, 2, 4, 5}}, batch);
    matmul(a, {{2, 2, 9, 5}}, {{3, 2, 4, 5}}, batch);
    matmul(a, {{2, 2, 9, 5}}, {{2, 2, 9, 9}},
           "Incompatible dims, input A shape[0] 3 should equal to input B shape[0] 9");
    matmul(a, b, {{2, 2, 5, 4}, dtype::float32, 0, true},
           "Incompatible dims,input A shape[1] 4 : output should have a shape of ( 4, 5 ) , however it has ( 5, 4 ) ");
    matmul(a, b, {{2, 2, 4, 5}, dtype::float32, 0, true},
           "Output can not be an expanded view: shape ( 2, 2, 4, 5 ) , strides ( 0, 0, 0, 1 ) ");
}

}  // namespace
}  // namespace ornik::test
