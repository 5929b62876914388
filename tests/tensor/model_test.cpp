// The object model: construction, state, views and their limits.
#include <algorithm>
#include <limits>

#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/geometry.h"
#include "tensor/tensor_math/indexing.h"
#include "tensor/tensor_shape.h"

namespace ornik::test {
namespace {

constexpr const char* state_file = "src/tensor/tensor.cpp";
constexpr std::int64_t max64 = std::numeric_limits<std::int64_t>::max();

std::string misfit(const Dims& shape, const Dims& strides, std::int64_t offset, std::int64_t capacity) {
    return "Tensor does not fit into its storage: shape " + shape_text(shape) + ", strides " + shape_text(strides) +
           ", offset " + std::to_string(offset) + ", storage for " + std::to_string(capacity) + " elements.";
}

TEST(Construction, RefusesDevicesAndSizesThatAreNotThere) {
    const std::int64_t two32 = std::int64_t{1} << 32;
    for (const std::int32_t slot : {1, 9, 9001}) {
        EXPECT_EQ(error_text([&] { Tensor({2}, 6 | slot << 4); }),
                  "Not compiled for GPU, set device = 0 or device = None");
    }
    testing::internal::CaptureStdout();  // The pool's dump.
    const std::string too_large = error_text([&] { Tensor({two32 + 1, 1000}, 6); });
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(too_large.substr(0, too_large.find('[')), "Memory not enough: alloc size");
    EXPECT_NO_THROW(Tensor(Dims(29, 1), 0));
}

TEST(Construction, FillsEveryField) {
    const float values[] = {1, 2, 3, 4, 5, 6};
    int handle = 0;
    const Tensor t({2, 3}, values, dtype::float32, &handle);
    EXPECT_EQ(t.Shape(), (Dims{2, 3}));
    EXPECT_EQ(t.Strides(), (Dims{3, 1}));
    EXPECT_EQ(t.Size(), 6);
    EXPECT_EQ(t.ndim(), 2);
    EXPECT_TRUE(t.isCPU() && t.is_dense() && t.is_contiguous() && t.isFloat() && !t.get_if_scalar());
    EXPECT_EQ(t.get_ndarray_handles(), &handle);
    EXPECT_EQ(t.get_alloc_mem_size(), 24);
    EXPECT_EQ(t.get_data_intptr(), reinterpret_cast<std::intptr_t>(t.getRawData()));
    EXPECT_EQ(values_of<float>(&t), std::vector<float>(values, values + 6));
    const Tensor nothing;
    EXPECT_EQ(nothing.StorageOffset(), 0);
    EXPECT_EQ(nothing.Layout(), 0);
    EXPECT_EQ(nothing.getRawData(), nullptr);
    EXPECT_EQ(nothing.getStorage(), nullptr);
    EXPECT_EQ(nothing.get_options(), nullptr);
}

TEST(Construction, FromAnotherTensorOrFromFloatsGivesBool) {
    const Tensor like({3}, dtype::float32);
    EXPECT_EQ(Tensor({2, 2}, &like).Dtype(), dtype::boolean);
    const Tensor from_values(std::vector<float>{1, 2}, Dims{4}, dtype::float64);
    EXPECT_EQ(from_values.Dtype(), dtype::boolean);
    EXPECT_EQ(from_values.Size(), 4);
}

TEST(Queries, CodesAndClasses) {
    EXPECT_EQ(Tensor::getDeviceID(-1), -1);
    EXPECT_EQ(Tensor::getDeviceID(999), 0);
    EXPECT_EQ(Tensor::getDeviceID(1000), 1);
    EXPECT_EQ(Tensor::getDeviceID(10000), 2);
    const char* names[] = {"bool",  "uint8",   "int8",    "int16",     "int32",
                           "int64", "float32", "float64", "complex64", "complex128"};
    for_types(AllTypes{}, [&]<typename T>() {
        const std::int64_t code = dtype_code<T>, size = sizeof(T);
        const Tensor t({2}, static_cast<std::int32_t>(code));
        EXPECT_EQ(t.itemsize(), size);
        EXPECT_EQ(t.getMeta()->element_size(), code == 2 ? -5 : size);
        EXPECT_EQ(static_cast<char*>(t.getStorage()->getRawData(1)) - static_cast<char*>(t.getRawData()), size);
        EXPECT_EQ(dtype_name(code), std::string("numpy.") + names[code]);
        EXPECT_EQ(t.isInteger(), std::is_integral_v<T>);
        EXPECT_EQ(t.isIntegralType(false), std::is_integral_v<T>);
        EXPECT_EQ(t.isFloatingType(), std::is_floating_point_v<T>);
        EXPECT_EQ(t.isComplexType(), !std::is_arithmetic_v<T>);
    });
    Tensor t;
    for (const auto& [device, name] : {std::pair{999, "CPU"}, {1000, "GPU"}, {10000, "unknown"}, {-1, "unknown"}}) {
        t.updateDevice(device);
        EXPECT_EQ(t.getDeviceName(), name);
        EXPECT_EQ(t.getGPUIndex(), device - 1000);
    }
}

TEST(Queries, AxisProducts) {
    const Tensor t({2, 3, 4}, 0);
    EXPECT_EQ(t.size_to_dim(0), 1);
    EXPECT_EQ(t.size_to_dim(2), 6);
    EXPECT_EQ(t.size_from_dim(1), 12);
    EXPECT_EQ(t.size_out_dim(2), 1);
    EXPECT_EQ(t.size_out_dim(0), 12);
}

TEST(Geometry, RowMajorStridesAndContiguity) {
    EXPECT_EQ(shape2stride({2, 3, 4}), (Dims{12, 4, 1}));
    EXPECT_EQ(shape2stride({}), Dims{});
    const auto contiguous = [](const Dims& shape, const Dims& strides) {
        return tensorT::Tensor_Meta(shape, strides, 6, 0, 0, 0, false).is_contiguous();
    };
    EXPECT_TRUE(contiguous({3, 1}, {1, 1}));
    EXPECT_FALSE(contiguous({3, 1}, {1, 3}));
    EXPECT_FALSE(contiguous({1, 3}, {1, 1}));
    EXPECT_FALSE(contiguous({2, 3}, {3}));
    EXPECT_TRUE(contiguous({1, 1}, {7, 9}));
    EXPECT_EQ(tensorT::Tensor_Meta({}, {}, 6, 0, 0, 0, false).GetSize(), 1);
}

TEST(Geometry, ViewStrides) {
    struct Case {
        Dims shape, strides, target, expected;
    };
    const Case cases[] = {
        {{2, 3, 4}, {12, 4, 1}, {6, 4}, {4, 1}},
        {{2, 3, 4}, {12, 4, 1}, {24}, {1}},
        {{2, 3, 4}, {12, 4, 1}, {2, 12}, {12, 1}},
        {{2, 3}, {1, 2}, {6}, {}},
        {{2, 3}, {1, 2}, {2, 3, 1}, {1, 2, 2}},
        {{4, 3}, {6, 1}, {2, 2, 3}, {12, 6, 1}},
        {{4, 3}, {0, 1}, {2, 2, 3}, {0, 0, 1}},
        {{2, 3}, {3, 1}, {7}, {}},
        {{2, 3}, {3, 1}, {}, {}},
        {{}, {}, {2, 2}, {0, 0}},
        {{0, 3}, {3, 1}, {0, 3}, {3, 1}},
        {{0, 3}, {3, 1}, {3, 0, 2}, {2, 2, 1}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(view_strides(c.shape, c.strides, numel_of(c.shape), c.target), c.expected)
            << shape_text(c.shape) << shape_text(c.target);
    }
}

TEST(State, NewShapesOfTheSameCount) {
    struct Case {
        Dims shape, strides, target, expected;
    };
    const Case cases[] = {
        {{2, 3}, {3, 1}, {3, 2}, {2, 1}},              // Contiguous: row-major.
        {{2, 3}, {3, 1}, {6, 1}, {1, 1}},              //
        {{2, 3}, {3, 1}, {1, 6, 1}, {6, 1, 1}},        //
        {{3, 2}, {1, 3}, {2, 3}, {3, 1}},              // Its own strides would leave the storage.
        {{3, 3}, {1, 2}, {3, 3}, {1, 2}},              // Strides stay with the number of axes.
        {{2, 3}, {6, 2}, {6}, {1}},                    // And are row-major for another one,
        {{2, 2, 4}, {0, 4, 1}, {2, 1, 8}, {0, 4, 1}},  //
        {{4, 1, 3}, {0, 5, 1}, {4, 3}, {0, 1}},        // or those of a view where that does not fit.
        {{}, {}, {1, 1}, {1, 1}},
    };
    for (const Case& c : cases) {
        std::int64_t capacity = 1;
        for_each_offset(c.shape, c.strides, [&](std::int64_t at) { capacity = std::max(capacity, at + 1); });
        const TensorPtr whole(Tensor::empty({capacity}, 0, dtype::float32));
        const TensorPtr t(share_storage_tensor(whole->getStorage(), c.shape, c.strides, dtype::float32, 0));
        t->updateShape(c.target);
        EXPECT_EQ(t->Strides(), c.expected) << shape_text(c.shape) << shape_text(c.target);
        EXPECT_EQ(t->getMeta()->GetStride(), c.expected);
    }
}

TEST(State, ScalarFlagFollowsTheAxes) {
    const auto flag_of = [](Tensor* t) { return TensorPtr(t)->get_if_scalar(); };
    const TensorPtr one(Tensor::ones({1, 1}, 0, dtype::float32)), scalar(Tensor::ones({}, 0, dtype::float32));
    EXPECT_TRUE(flag_of(one->reshape({})));
    EXPECT_TRUE(flag_of(one->reshape_copy({})));
    EXPECT_TRUE(flag_of(one->squeeze()));
    EXPECT_TRUE(flag_of(one->select_ndim({"0", "0"})));
    EXPECT_TRUE(flag_of(TileGrad(one.get(), {}, {1, 1})));
    EXPECT_FALSE(flag_of(scalar->view({1})));
    EXPECT_FALSE(Tensor().get_if_scalar());
    scalar->reshape_({2, 2});
    EXPECT_FALSE(scalar->get_if_scalar());
    one->updateShape({});
    EXPECT_TRUE(one->get_if_scalar());
    one->initialize_none_tensor({2}, dtype::int8, 0, 0);
    EXPECT_FALSE(one->get_if_scalar());
}

TEST(State, InitialisersAcceptZeroExtents) {
    Tensor described;
    EXPECT_EQ(described.init_tensor_without_alloc_data({}, dtype::int8, 0, 0), 0);
    EXPECT_EQ(described.Size(), 1);
    EXPECT_EQ(described.getMeta(), nullptr);
    EXPECT_EQ(described.get_options()->dtype, dtype::int8);
    Tensor empty;
    EXPECT_EQ(empty.initialize_none_tensor({2, 0}, dtype::int16, 0, layout::coo), 0);
    EXPECT_EQ(empty.Size(), 0);
    EXPECT_TRUE(empty.is_coo());
    const TensorPtr view(share_storage_tensor(empty.getStorage(), {0, 3}, {3, 1}, dtype::int16, 0));
    EXPECT_EQ(view->Size(), 0);
    empty.init_tensor_without_alloc_data({2, 3}, dtype::float32, 0, 0);
    EXPECT_EQ(empty.getMeta(), nullptr);
    EXPECT_EQ(empty.getStorage(), nullptr);
    empty.updateDevice(std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(empty.getGPUIndex(), max64 - 999);
    Tensor unbound;
    unbound.updateShape({5});
    EXPECT_EQ(unbound.Shape(), Dims{5});
}

TEST(Views, ArgumentsInTheirOrder) {
    const TensorPtr whole = make<std::int32_t>({8}, counted<std::int32_t>(8));
    const TensorPtr view(view_tensor(whole->getStorage(), {2, 2}, {3, 1}, 0, dtype::int32, 2));
    EXPECT_EQ(view->Dtype(), dtype::int32);
    EXPECT_EQ(view->StorageOffset(), 2);
    EXPECT_TRUE(view->getMeta()->numel_offset());
    EXPECT_FALSE(whole->getMeta()->numel_offset());
    EXPECT_EQ(values_of<std::int32_t>(view), (std::vector<std::int32_t>{2, 3, 5, 6}));
    const TensorPtr shared(share_storage_tensor(whole->getStorage(), {2}, {-4}, dtype::int32, 7));
    EXPECT_EQ(values_of<std::int32_t>(shared), (std::vector<std::int32_t>{7, 3}));
    const TensorPtr shaped(view_tensor(whole.get(), {2, 4}));
    EXPECT_EQ(shaped->getStorage(), whole->getStorage());
    EXPECT_EQ(shaped->Strides(), (Dims{4, 1}));
}

TEST(Views, MetasOutsideTheirStorageAreNotPrinted) {
    const tensorT::Tensor_Meta far({2}, {1}, dtype::float32, 0, 0, 1 << 20, true);
    const tensorT::Tensor_Meta wide({2}, {1 << 20}, dtype::float32, 0, 0, 0, true);
    tensorT::Tensor_Meta counted({2}, {1}, dtype::float32, 0, 0, 0, true);
    counted.setSize(1 << 20);
    const std::string refusal = "ornik::Tensor::init_none_tensor_with_shared_storage";
    expect_error([&] { far.Print(); }, misfit({2}, {1}, 1 << 20, 2), refusal, state_file);
    expect_error([&] { wide.Print(); }, misfit({2}, {1 << 20}, 0, 2), refusal, state_file);
    const float raw[] = {5, 6};
    counted.convert_dtype_and_copy_data(raw, dtype::float32);
    testing::internal::CaptureStdout();
    counted.Print();
    const std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "CHANGE TO contiguous;\n####Data#### \n data 0 : 5,  data 1 : 6, \n#######End###### \n");
}

TEST(Views, KeepTheStorageAlive) {
    TensorPtr owner = make<float>({3}, {1, 2, 3});
    const TensorPtr view(view_tensor(owner.get(), {3, 1}));
    static_cast<float*>(owner->getRawData())[1] = 7;
    owner.reset();
    EXPECT_EQ(values_of<float>(view), (std::vector<float>{1, 7, 3}));
}

TEST(Sparse, MembersDieWithTheirTensor) {
    const auto shares = [](const TensorPtr& t) { return t->getStorage().use_count(); };
    const TensorPtr kept = make<float>({2}, {1, 2});
    const auto sparse_around = [&](void* handle, std::int64_t layout_code) {
        auto sparse = std::make_unique<Tensor>();
        sparse->initialize_none_tensor({2, 2}, dtype::float32, 0, layout_code);
        sparse->set_ndarray_handles(handle);
        sparse->set_csr_members({view_tensor(kept.get(), {2}), nullptr});
        return sparse;
    };
    const auto before = shares(kept);
    sparse_around(nullptr, layout::csr).reset();
    EXPECT_EQ(shares(kept), before);
    int handle = 0;
    TensorPtr foreign = sparse_around(&handle, layout::csr);
    const std::unique_ptr<Tensor> orphan(foreign->get_csr_members()[0]);
    foreign.reset();
    EXPECT_EQ(values_of<float>(orphan.get()), (std::vector<float>{1, 2}));

    const TensorPtr sparse = sparse_around(nullptr, layout::csr);
    const TensorPtr moved(sparse->CPU(0));
    EXPECT_TRUE(moved->is_csr());
    EXPECT_EQ(values_of<float>(moved->get_csr_members()[0]), (std::vector<float>{1, 2}));
    EXPECT_NE(moved->get_csr_members()[0]->getStorage(), kept->getStorage());
}

TEST(Devices, Moves) {
    Tensor t({2}, dtype::float32);
    const std::string no_gpu = "Not compiled for GPU, set device = 0 or device = None";
    EXPECT_EQ(error_text([&] { t.toDevice(1000); }), no_gpu);
    EXPECT_EQ(error_text([&] { t.toGPU(1000); }), no_gpu);
    EXPECT_EQ(error_text([&] { t.GPU(1003); }), no_gpu);
    EXPECT_EQ(error_text([&] { t.toDevice(5); }), error_text([&] { t.toCPU(5); }));
    EXPECT_NO_THROW(t.toCPU(1003));
    EXPECT_NO_THROW(t.toDevice(0));
    const TensorPtr copy(t.CPU(0));
    EXPECT_NE(copy->getStorage(), t.getStorage());
}

}  // namespace
}  // namespace ornik::test
