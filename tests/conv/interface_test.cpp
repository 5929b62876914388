// Convolution layers: sizes, paddings, messages, and what the factories do to their arguments.
#include <iostream>

#include "apis/ornik.h"
#include "layers/conv/layer_conv1D.h"
#include "layers/conv/layer_conv2D.h"
#include "layers/conv/layer_convT2D.h"
#include "support/expect_error.h"
#include "support/tensors.h"
#include "tensor/nn/tensor_conv.h"

namespace ornik::test {
namespace {

using LayerPtr = std::unique_ptr<Layer>;
using Ints = std::vector<int>;
const Ints one_one{1, 1};

TensorPtr ones(const Dims& shape, std::int64_t dtype = dtype::float32) {
    return TensorPtr(Tensor::ones(shape, 0, dtype));
}

TEST(ConvolDescriptor, SizesAndPaddings) {
    struct Row {
        const char* type;
        std::int64_t input;
        int kernel, stride, padding, dilation;
        std::int64_t rows, cols, pad_rows, pad_cols;
    };
    for (const Row& r : {Row{"same", 5, 3, 1, 0, 1, 5, 5, 1, 1}, Row{"zeros", 5, 3, 1, 0, 1, 5, 5, 1, 1},
                         Row{"same", 9, 5, 3, 0, 1, 3, 3, 1, 1}, Row{"valid", 5, 3, 1, 0, 2, 1, 1, 0, 0},
                         Row{"none", 9, 3, 2, 0, 1, 4, 4, 0, 0}, Row{"same,none", 5, 3, 1, 0, 1, 5, 3, 1, 0},
                         Row{"none,same", 5, 3, 1, 0, 1, 3, 5, 0, 1}, Row{"custom", 5, 3, 2, 2, 1, 4, 4, 2, 2}}) {
        ConvolDescriptor d({2, r.kernel, r.kernel}, {r.stride, r.stride}, {r.padding, r.padding}, r.type,
                           {r.dilation, r.dilation}, 1);
        d.build_dynamic(ones({1, 1, r.input, r.input}).get(), ones({2, 1, r.kernel, r.kernel}).get());
        EXPECT_EQ(d.output_shape(), (Dims{1, 2, r.rows, r.cols})) << r.type;
        EXPECT_EQ(d.padding_rows.begin, r.pad_rows) << r.type;
        EXPECT_EQ(d.padding_cols.end, r.pad_cols) << r.type;
    }
    for (const Row& r : {Row{"same", 4, 3, 1, 0, 5, 4, 4, 1, 1}, Row{"valid", 4, 5, 2, 0, 3, 11, 11, 0, 0},
                         Row{"custom", 4, 3, 2, 1, 2, 10, 10, 1, 1}}) {
        ConvolDescriptorT2D d(2, {r.kernel, r.kernel}, {r.stride, r.stride}, {r.padding, r.padding}, r.type,
                              {r.dilation, r.dilation}, one_one, 1);
        d.build_dynamic(ones({1, 1, r.input, r.input}).get(), ones({2, 1, r.kernel, r.kernel}).get());
        EXPECT_EQ(d.output_shape(), (Dims{1, 2, r.rows, r.cols})) << r.type;
        EXPECT_EQ(d.padding_rows.begin, r.pad_rows) << r.type;
    }
    ConvolDescriptor d({4, 3, 1}, {2, 1}, {1, 0}, "custom", {2, 1}, 2);
    d.build_dynamic(ones({3, 6, 9, 8}).get(), ones({4, 3, 3, 1}).get());
    EXPECT_EQ(d.debug_dump(),
              "_kernal_nums: 4\n_kernal_rows: 3\n_kernal_cols: 1\n_kernal_channels: 3\n_rows_strides: 2\n"
              "_cols_strides: 1\n_input_num: 3\n_input_rows: 9\n_input_cols: 8\n_input_channel: 6\n_output_rows: 4\n"
              "_output_cols: 8\n_output_channels: 4\npad rows: 1\npad cols: 0\n_dilation_rate rows: 2\n"
              "_dilation_rate cols: 1\n_num_groups: 2\n");
}

// The text of a failed forward call, after what it printed.
std::string forward_text(Layer& layer, const TensorPtr& weight, const TensorPtr& input) {
    testing::internal::CaptureStdout();
    const std::string text = error_text([&] { delete layer.forward_dyn(weight.get(), nullptr, input.get()); });
    return testing::internal::GetCapturedStdout() + text;
}

TEST(ConvolDescriptor, Refusals) {
    const std::string conv = "ornik::ConvolDescriptor::", convT = "ornik::ConvolDescriptorT2D::";
    const std::string file = "src/descriptors/descriptor_conv2D.cpp", fileT = "src/descriptors/descriptor_convT2D.cpp";
    const auto made = [&](const Ints& kernel, const Ints& strides, const std::string& message) {
        expect_error([&] { ConvolDescriptor(kernel, strides, {}, "odd", one_one, 1); }, message,
                     conv + "ConvolDescriptor", file);
    };
    made({3, 3}, one_one, "Kernels must have 3 dimensions");
    made({1, 3, 3}, {1}, "Strides must have 2 dimensions");
    made({1, 3, 3}, one_one, "Incorrect padding type (odd");

    const TensorPtr x = ones({1, 2, 5, 5});
    const auto layer = [](const Ints& kernel, const std::string& type, int dilation) {
        return LayerPtr(_Conv2D(1, kernel, one_one, type, false, 1, {dilation, dilation}, ""));
    };
    const auto layerT = [](const Ints& kernel, const std::string& type) {
        return LayerPtr(_ConvT2D(1, kernel, one_one, type, false, 1, one_one, {0, 0}, ""));
    };
    const std::string asymmetric = "Not Support asymmetric padding.Please set equal padding ";
    EXPECT_EQ(forward_text(*layer({2, 2}, "same", 1), ones({1, 2, 2, 2}), x),
              located(asymmetric + "scalar for Conv2D", conv + "build_dynamic", file));
    EXPECT_EQ(forward_text(*layerT({2, 2}, "same"), ones({1, 2, 2, 2}), x),
              located(asymmetric + "value for ConvT2D", convT + "build_dynamic", fileT));
    EXPECT_EQ(forward_text(*layer({3, 3}, "valid", 3), ones({1, 2, 3, 3}), x),
              "'Rows' are reach 0 or less (-1)\n'Columns' are reach 0 or less (-1)\n" +
                  located("Invalid output shape", conv + "build_dynamic", file));
    EXPECT_EQ(forward_text(*layerT({3, 3}, "zeros"), ones({1, 2, 3, 3}), x),
              "'Rows' are reach 0 or less (-1)\n'Columns' are reach 0 or less (-1)\n" +
                  located("Invalid output shape", convT + "build_dynamic", fileT));
    // A type that is spoilt after construction is printed and refused when the sizes are resolved.
    ConvolDescriptor spoilt({1, 3, 3}, one_one, {}, "same", one_one, 1);
    spoilt.padding_type = "odd";
    testing::internal::CaptureStdout();
    expect_error(
        [&] {
            spoilt.build_dynamic(x.get(), ones({1, 2, 3, 3}).get());
        },
        "Incorrect padding type", conv + "compute_output", file);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "odd\n");
}

TEST(ConvolutionFactories, AppendFirstAndCheckThen) {
    const std::string file = "src/apis/ornik_conv.cpp";
    struct Row {
        Ints kernel, strides, dilation, padding;
        bool named;
        const char* message;
        std::size_t padding_size;
    };
    for (Row r : {Row{{}, {1}, {1}, {0}, false, "kernel_size for Conv1d should be integer.", 1},
                  Row{{3, 3}, {1}, {1}, {0}, true, "kernel_size for Conv1d should be a single integer.", 1},
                  Row{{3}, {}, {}, {0}, false, "strides for Conv1d should be integer.", 1},
                  Row{{3}, {1}, {1, 1}, {0}, true, "dilation_rate for Conv1d should be integer.", 1},
                  Row{{3}, {1}, {1}, {0, 0}, false, "padding for Conv1d should be integer.", 3}}) {
        const std::size_t kernel_size = r.kernel.size(), strides_size = r.strides.size();
        expect_error(
            [&] {
                r.named ? _Conv1D(1, r.kernel, r.strides, "same", true, 1, r.dilation, "")
                        : _Conv1D(1, r.kernel, r.strides, r.padding, true, 1, r.dilation, "");
            },
            r.message, "ornik::_Conv1D", file);
        EXPECT_EQ(r.kernel.size(), kernel_size + 1);
        EXPECT_EQ(r.strides.size(), strides_size + 1);
        EXPECT_EQ(r.padding.size(), r.padding_size);
    }
    Ints k{3}, s{2}, p{1}, d{1};
    EXPECT_EQ(LayerPtr(_Conv1D(4, k, s, p, true, 1, d, ""))->get_name(), "conv1d");
    EXPECT_EQ(k, (Ints{3, 1}));
    EXPECT_EQ(p, (Ints{1, 0}));
    EXPECT_EQ(LayerPtr(_Conv2D(1, one_one, one_one, "none", true, 1, one_one, ""))->get_name(), "conv2d");
    EXPECT_EQ(LayerPtr(_ConvT2D(1, one_one, one_one, "valid", true, 1, one_one, {0, 0}, ""))->get_name(), "convT2d");
    EXPECT_EQ(LayerPtr(_Conv2D(1, one_one, one_one, "none", true, 1, one_one, "mine"))->get_name(), "mine");
}

TEST(Conv1D, ShapesAreTheArgumentsOwn) {
    Ints k{3}, s{2}, p{1}, d{1};
    const LayerPtr layer(_Conv1D(2, k, s, p, true, 1, d, ""));
    const TensorPtr b = ones({1, 2, 1});
    const TensorPtr g = ones({2, 2, 3});
    for (const bool four : {false, true}) {
        const TensorPtr x =
            make<float>(four ? Dims{2, 1, 5, 1} : Dims{2, 1, 5}, counted<float>(10), Layout::transposed);
        const TensorPtr w = make<float>(four ? Dims{2, 1, 3, 1} : Dims{2, 1, 3}, counted<float>(6));
        const Dims shape = x->Shape(), strides = x->Strides();
        const TensorPtr y(layer->forward_dyn(w.get(), b.get(), x.get()));
        EXPECT_EQ(y->Shape(), (Dims{2, 2, 3}));
        // Output (n, o, y) = 1 + sum over i of w[o, i] x[n, 2 y - 1 + i].
        EXPECT_EQ(values_of<float>(y), (std::vector<float>{3, 9, 5, 6, 27, 26, 18, 24, 10, 51, 87, 61}));
        EXPECT_EQ(x->Shape(), shape);
        EXPECT_EQ(x->Strides(), strides);
        const Tensor* arguments[] = {x.get(), w.get(), b.get()};
        for (int node = 0; node < 3; ++node) {
            const TensorPtr gradient(layer->backward_dyn(w.get(), b.get(), x.get(), g.get(), node));
            EXPECT_EQ(gradient->Shape(), arguments[node]->Shape()) << node;
        }
        const TensorPtr integers(x->astype(dtype::int32));
        EXPECT_NE(error_text([&] { layer->forward_dyn(w.get(), b.get(), integers.get()); }), "(no error)");
        EXPECT_EQ(integers->Shape(), shape);
    }
}

TEST(ConvolutionLayers, NodesBiasAndTrainable) {
    const auto one = [](bool bias) {
        Ints k{1}, s{1}, d{1};
        return LayerPtr(_Conv1D(3, k, s, "none", bias, 1, d, ""));
    };
    const auto two = [](bool bias) { return LayerPtr(_Conv2D(3, one_one, one_one, "none", bias, 1, one_one, "")); };
    const auto back = [](bool bias) {
        return LayerPtr(_ConvT2D(3, one_one, one_one, "valid", bias, 1, one_one, {0, 0}, ""));
    };
    // `inner` is the function that reports, in `file`; frozen layers of two axes refuse what those of one ignore.
    const auto check = [&](const auto& make, const Dims& tail, const std::string& inner, const std::string& file,
                           const std::string& weight_function, const std::string& node, const std::string& invoke) {
        const auto shaped = [&](std::int64_t first, std::int64_t second, bool is_weight) {
            Dims shape{first, second};
            for (const std::int64_t extent : tail) {
                shape.push_back(is_weight ? 1 : extent);
            }
            return ones(shape);
        };
        const TensorPtr x = shaped(2, 2, false), w = shaped(3, 2, true), g = shaped(2, 3, false);
        const LayerPtr with_bias = make(true), without_bias = make(false);
        const auto backward = [&](const LayerPtr& layer, int wanted) {
            return TensorPtr(layer->backward_dyn(w.get(), nullptr, x.get(), g.get(), wanted));
        };
        const auto refused = [&](const LayerPtr& layer, int wanted, const std::string& message) {
            expect_error([&] { backward(layer, wanted); }, message, inner, file);
        };
        const std::string name = invoke.substr(invoke.rfind(' ') + 1);
        EXPECT_EQ(error_text([&] { backward(with_bias, 1); }),
                  located("Convolution needs a forward call before its gradients.", weight_function,
                          "src/tensor/nn/tensor_conv.cpp"));
        EXPECT_EQ(TensorPtr(with_bias->forward_dyn(w.get(), nullptr, x.get()))->Shape(), g->Shape());
        EXPECT_EQ(backward(with_bias, 2)->Shape(), (Dims{3}));
        EXPECT_EQ(with_bias->get_gx(), nullptr);
        EXPECT_EQ(with_bias->backward_dyn(x.get(), g.get()), nullptr);
        refused(with_bias, 3, node);
        refused(without_bias, 2, invoke + ".");
        with_bias->_trainable = without_bias->_trainable = false;
        refused(without_bias, 2, invoke + ".");
        EXPECT_EQ(backward(with_bias, 1), nullptr);
        if (tail.size() == 1) {
            EXPECT_EQ(backward(with_bias, 0)->Shape(), x->Shape());
            EXPECT_EQ(backward(with_bias, 2), nullptr);
        } else {
            refused(with_bias, 0, "Invokes grad function of input with " + name + " is not _trainable.");
            refused(with_bias, 2, "Invokes grad function of bias with " + name + " is not _trainable.");
        }
    };
    check(one, {4}, "ornik::LConv1D::float_backward", "src/layers/conv/layer_conv1D.cpp", "ornik::Conv2D_w_grad",
          "ONLY backward weight input bias grad", "Invoke grad of bias function with use_bias==False in Conv1D");
    check(two, {4, 1}, "ornik::LConv2D::float_backward", "src/layers/conv/layer_conv2D.cpp", "ornik::Conv2D_w_grad",
          "ONLY backward weight, input or bias's grad",
          "Invokes grad function of bias with use_bias == False in Conv2D");
    check(back, {4, 1}, "ornik::LConvT2D::ConvT2D_float_backward", "src/layers/conv/layer_convT2D.cpp",
          "ornik::ConvT2D_w_grad", "ONLY backward weight,input or bias's grad",
          "Invokes grad function of bias with use_bias == False in ConvT2D");
    const TensorPtr x = ones({2, 2, 4, 1}), w = ones({3, 2, 1, 1}), b = ones({3});
    expect_error([&] { back(false)->forward_dyn(w.get(), b.get(), x.get()); },
                 "invoke add bias in convt2d with use_bias== False.", "ornik::ConvT2D_forward",
                 "src/tensor/nn/tensor_conv.cpp");
    EXPECT_EQ(values_of<float>(TensorPtr(two(false)->forward_dyn(w.get(), b.get(), x.get())))[0], 2.0F);
    // A copy keeps the sizes of the latest forward call, and its own from then on.
    const LayerPtr original = two(true);
    TensorPtr(original->forward_dyn(w.get(), nullptr, x.get())).reset();
    LConv2D copy(static_cast<const LConv2D&>(*original));
    TensorPtr(original->forward_dyn(w.get(), nullptr, ones({1, 2, 7, 7}).get())).reset();
    EXPECT_EQ(TensorPtr(copy.backward_dyn(w.get(), nullptr, x.get(), ones({2, 3, 4, 1}).get(), 0))->Shape(),
              x->Shape());
}

}  // namespace
}  // namespace ornik::test
