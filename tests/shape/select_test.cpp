// Selection strings: the two grammars, and the operations against an element-by-element model.
#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <stdexcept>

#include "descriptors/selection.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using Items = std::vector<std::string>;
TensorPtr own(Tensor* t) { return TensorPtr(t); }

TEST(SelectionGrammar, WhatItemsMean) {
    struct Row {
        Items items;
        std::vector<Dims> legacy, ndim;  // empty: refused
    };
    const Dims axis{0, 1, 2, 3};
    const Row rows[] = {
        {{"1:3"}, {{1, 2}}, {{1, 2}}},
        {{" - 1 "}, {{3, 3}}, {{3}}},
        {{"+2x"}, {{2, 2}}, {{2}}},
        {{"\t1"}, {{1, 1}}, {{1}}},
        {{}, {{0, 3}}, {axis}},
        {{":"}, {{0, 3}}, {axis}},
        {{"2:"}, {{2, 3}}, {{2, 3}}},
        {{":-1"}, {{0, 2}}, {{0, 1, 2}}},
        {{":0"}, {{0, 3}}, {}},
        {{"0:0"}, {{0, 3}}, {}},
        {{"1:5:2"}, {}, {{1, 3}}},
        {{"1:4:2"}, {{1, 3}}, {{1, 3}}},
        {{"3:1"}, {}, {{3, 2}}},
        {{"3:0:-2"}, {{3, 3}}, {{3, 1}}},
        {{"3:-4"}, {}, {{3, 2, 1}}},
        {{"3:2:1"}, {}, {{3}}},
        {{"0:4:-1"}, {{0, 3}}, {}},
        {{"1,3,1"}, {{1, 1}}, {{1, 3, 1}}},
        {{"-1,0"}, {{3, 3}}, {{3, 0}}},
        {{":3:2"}, {{0, 2}}, {{0, 1, 2}}},
        {{"1:3:"}, {{1, 2}}, {{1, 2, 3}}},
        {{"-9"}, {}, {{-5}}},
        {{"0:2000000000"}, {}, {}},
        {{"-2000000000:3"}, {}, {}},
        {{"4"}, {}, {}},
        {{"1,"}, {{1, 1}}, {}},
    };
    for (const Row& row : rows) {
        const std::string name = row.items.empty() ? "" : row.items[0];
        const auto parsed = [&](auto parse) {
            try {
                return parse(row.items, Dims{4});
            } catch (const std::exception&) {
                return std::vector<Dims>{};
            }
        };
        EXPECT_EQ(parsed(parse_indices), row.legacy) << name;
        EXPECT_EQ(parsed(parse_indicesv2), row.ndim) << name;
    }
    EXPECT_EQ(parse_indices({"1:3", "0"}, {4, 5, 6}), (std::vector<Dims>{{1, 2}, {0, 0}, {0, 5}}));
    EXPECT_EQ(just_keep_dims({"1", "1,2", " 2 "}, {4, 4, 4, 4}), (std::vector<bool>{false, true, false, true}));
    SelDescriptorV2 descriptor({"1:3", "0"});
    descriptor.build({4, 5, 6});
    EXPECT_EQ(descriptor.output_shape(), (Dims{2, 1, 6}));
    EXPECT_EQ(descriptor.kept_shape(), (Dims{2, 6}));
    EXPECT_EQ(descriptor.input_strides(), (Dims{30, 6, 1}));
    EXPECT_EQ(descriptor.indices()[0], (Dims{1, 2}));
}

TEST(SelectionGrammar, TextThatIsNoNumber) {
    const TensorPtr t = own(Tensor::zeros({4, 5, 6}, 0, dtype::float32));
    // It is reported as the conversion's own failure, as is a number beyond 32 bits.
    for (const char* item : {"", "x", "::2", "0::2", "+-1", ",", "1,,2"}) {
        EXPECT_THROW(t->select_ndim({item}), std::invalid_argument) << item;
    }
    const auto text = [&]<typename Error>(const auto& call) -> std::string {
        try {
            call();
        } catch (const Error& error) {
            return error.what();
        }
        return "";
    };
    EXPECT_EQ(text.operator()<std::out_of_range>([&] { t->select({"99999999999999999999"}); }),
              "stoi argument out of range");
    EXPECT_EQ(text.operator()<std::invalid_argument>([&] { t->select_ndim({"   "}); }), "invalid stoi argument");
}

TEST(Selection, OperationsOfAllTypesAndLayouts) {
    const Dims shape{4, 5, 6};
    struct Row {
        Items items;
        std::vector<Dims> lists;
        Dims kept;
    };
    const Dims all{0, 1, 2, 3, 4, 5};
    const Row rows[] = {{{"1:3", "0"}, {{1, 2}, {0}, all}, {2, 6}},
                        {{"3:0", "1:", "5:0:-2"}, {{3, 2, 1}, {1, 2, 3, 4}, {5, 3, 1}}, {3, 4, 3}},
                        {{"1,3,1", "0,4,0", "2"}, {{1, 3, 1}, {0, 4, 0}, {2}}, {3, 3}},
                        {{"-1", ":", "5,0,1,1"}, {{3}, {0, 1, 2, 3, 4}, {5, 0, 1, 1}}, {5, 4}},
                        {{"2", "3", "4"}, {{2}, {3}, {4}}, {}},
                        {{}, {{0, 1, 2, 3}, {0, 1, 2, 3, 4}, all}, shape}};
    for_types(AllTypes{}, [&]<typename T>() {
        for (const Layout layout : all_layouts) {
            for (const Row& row : rows) {
                SCOPED_TRACE(name_of(layout) + "/" + dtype_name(dtype_code<T>) +
                             (row.items.empty() ? "" : row.items[0]));
                const TensorPtr t = make(shape, counted<T>(120), layout);
                const std::vector<T> values = values_of<T>(t);
                const std::vector<std::size_t> flat = flat_positions(row.lists, shape);
                std::vector<T> expected;
                for (const std::size_t position : flat) {
                    expected.push_back(values[position]);
                }
                const TensorPtr selected = own(t->select_ndim(row.items));
                EXPECT_EQ(selected->Shape(), row.kept);
                EXPECT_EQ(values_of<T>(selected), expected);

                // The gradient adds up repeated positions; zeros elsewhere.
                const TensorPtr gradient = own(t->select_ndim_grad(selected.get(), row.items));
                std::vector<T> sums(120, T{});
                for (std::size_t i = 0; i < flat.size(); ++i) {
                    sums[flat[i]] = static_cast<T>(sums[flat[i]] + expected[i]);
                }
                EXPECT_EQ(values_of<T>(gradient), sums);
                const TensorPtr collected = make(shape, counted<T>(120), layout);
                collected->set_select_ndim_grad(selected.get(), row.items);
                std::vector<T> totals(120);
                for (std::size_t i = 0; i < totals.size(); ++i) {
                    totals[i] = static_cast<T>(sums[i] + values[i]);
                }
                EXPECT_EQ(values_of<T>(collected), totals);

                // Of several values for one position the last stays.
                const TensorPtr source = make(row.kept, counted<T>(static_cast<std::int64_t>(flat.size()), 7), layout);
                const std::vector<T> new_values = values_of<T>(source);
                std::vector<T> after = values;
                for (std::size_t i = 0; i < flat.size(); ++i) {
                    after[flat[i]] = new_values[i];
                }
                t->set_select_ndim(source.get(), row.items);
                EXPECT_EQ(values_of<T>(t), after);
            }
        }
    });
}

TEST(Selection, ViewsLegacyAndBroadcastValues) {
    const TensorPtr t = make({4, 5}, counted<float>(20), Layout::transposed);
    const TensorPtr view = own(t->select_ndim_without_copy({"1:4:2", "3"}));
    EXPECT_EQ(view->Shape(), (Dims{2}));
    EXPECT_EQ(view->getStorage(), t->getStorage());
    EXPECT_EQ(values_of<float>(view), (std::vector<float>{8, 18}));
    EXPECT_EQ(own(t->select_ndim_without_copy({"1", "3"}))->ndim(), 0);

    const TensorPtr kept = own(t->select({"-2", "1:3"}));
    EXPECT_EQ(kept->Shape(), (Dims{1, 2}));
    EXPECT_EQ(values_of<float>(kept), (std::vector<float>{11, 12}));

    // Converted and broadcast; the value may be part of the tensor itself.
    const TensorPtr column = make({2, 1}, std::vector<std::int32_t>{-1, -2});
    t->set_select_legacy(column.get(), {"1:3", "3:5"});
    const TensorPtr wide = make({1, 2}, std::vector<std::int32_t>{-3, -4});
    t->set_select_ndim(wide.get(), {"0", "0:2"});  // The axis that the selection drops may be there.
    EXPECT_EQ(values_of<float>(own(t->select_ndim({"0", "0:3"}))), (std::vector<float>{-3, -4, 2}));
    EXPECT_EQ(values_of<float>(own(t->select({"1:3", "3:5"}))), (std::vector<float>{-1, -1, -2, -2}));
    const TensorPtr row = own(t->select_ndim_without_copy({"3", "0:4"}));
    t->set_select_ndim(row.get(), {"3", "1:5"});
    EXPECT_EQ(values_of<float>(own(t->select_ndim({"3"}))), (std::vector<float>{15, 15, 16, 17, 18}));
}

TEST(Printing, LinesWhole) {
    const auto printed = [](const std::function<void()>& print) {
        testing::internal::CaptureStdout();
        print();
        return testing::internal::GetCapturedStdout();
    };
    const TensorPtr bytes = make({3, 2}, std::vector<std::int8_t>{65, -1, 0, 7, 8, 9}, Layout::transposed);
    std::ostringstream address;
    address << static_cast<const void*>(bytes.get());
    const std::string data =
        "####Data#### \n data 0 : 65,  data 1 : -1,  data 2 : 0,  data 3 : 7,  data 4 : 8,  data 5 : 9, "
        "\n#######End###### \n";
    EXPECT_EQ(printed([&] { bytes->Print(); }),
              "##########Print######### \n" + address.str() +
                  "\ndtype: int8, device: CPU, shape: [3, 2], strides: [1, 3], size: 6\nis_contiguous: 0\n" + data);
    EXPECT_EQ(printed([&] { bytes->print(5, true); }), printed([&] { bytes->Print(); }));
    EXPECT_EQ(printed([&] { bytes->getMeta()->Print(); }), "CHANGE TO contiguous;\n" + data);
    const TensorPtr z = make({1}, std::vector<Complex<float>>{{1.5F, -2.0F}});
    EXPECT_EQ(printed([&] { z->getMeta()->Print(); }),
              "####Data#### \n data 0 : real 1.5,  imag -2, \n#######End###### \n");
    Tensor csr;
    csr.init_none_tensor_with_shared_storage({2}, {1}, dtype::float32, 0, z->getStorage(), layout::csr, 0);
    EXPECT_EQ(printed([&] { csr.getMeta()->Print(); }), "Not support non-dense tensor. \n#######End###### \n");
    const std::string info = printed([&] { bytes->info(); });
    EXPECT_NE(info.find("\nif dense: 1\nndim: 2\nshape: [3, 2]\nstrides: [1, 3]\nnumel: 6\ndtype: int8 (code = 2)\n"
                        "device: CPU\ndata address: "),
              std::string::npos)
        << info;
    const std::string debug = printed([&] { bytes->info_debug(); });
    EXPECT_NE(debug.find("\nshape: [3, 2]\nstride: [1, 3]\ndtype: int8\ndevice: CPU\ndata: "), std::string::npos);
    EXPECT_NE(debug.find("\nis_contiguous : 0\n-------------------------------\n"), std::string::npos);
}

#if defined(__GNUC__) && !defined(__clang__)
__attribute__((no_sanitize("null"), optimize("no-delete-null-pointer-checks")))
#elif defined(__clang__)
__attribute__((no_sanitize("null")))
#endif
void describe_null() {
    Tensor* volatile missing = nullptr;
    Tensor* t = missing;
    t->info();
    t->info_debug();
}

TEST(Printing, NullTensorsAreNamed) {
    testing::internal::CaptureStdout();
    describe_null();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Tensor is nullptr!\nTensor is nullptr!\n");
}

}  // namespace
}  // namespace ornik::test
