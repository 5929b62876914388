// row_kernels.cpp: rows of functions and their gradients, softmax, layer normalization and attention, through libtorch.
#include <functional>
#include <string>
#include <vector>

#include "tensors.h"

namespace bench {

namespace {

at::Tensor centred(at::IntArrayRef shape) { return shuffled(shape).mul_(6).sub_(3); }

void function_rows() {
    for (const std::int64_t n : bench::function_sizes) {
        const at::Tensor in = centred({n});
        const at::Tensor g = shuffled({n});
        at::Tensor out = filled({n}, 0);
        const auto row = [&](const char* name, const std::function<void()>& operation) {
            bench::row("rows/" + std::string(name) + "/" + std::to_string(n), operation);
        };
        row("exp", [=]() mutable { at::exp_out(out, in); });
        row("tanh", [=]() mutable { at::tanh_out(out, in); });
        row("tanh_grad", [=] { at::tanh_backward(g, out); });
        row("sigmoid", [=]() mutable { at::sigmoid_out(out, in); });
        row("sigmoid_grad", [=] { at::sigmoid_backward(g, out); });
        row("silu", [=]() mutable { at::silu_out(out, in); });
        row("silu_grad", [=] { at::silu_backward(g, in); });
        row("erf", [=]() mutable { at::erf_out(out, in); });
        row("gelu", [=]() mutable { at::gelu_out(out, in); });
        row("gelu_grad", [=] { at::gelu_backward(g, in); });
    }
}

void softmax_rows() {
    for (const auto& size : bench::softmax_sizes) {
        const at::Tensor x = centred(bench::shape_of(size));
        const at::Tensor g = shuffled(bench::shape_of(size));
        const at::Tensor y = at::softmax(x, 1);
        const at::Tensor z = at::log_softmax(x, 1);
        const std::string by = "/" + bench::by(size);
        bench::row("rows/softmax" + by, [=] { at::softmax(x, 1); });
        bench::row("rows/softmax_grad" + by, [=] { at::_softmax_backward_data(g, y, 1, at::kFloat); });
        bench::row("rows/log_softmax" + by, [=] { at::log_softmax(x, 1); });
        bench::row("rows/log_softmax_grad" + by, [=] { at::_log_softmax_backward_data(g, z, 1, at::kFloat); });
    }
}

void layer_norm_rows() {
    for (const auto& size : bench::norm_sizes) {
        const at::Tensor x = centred(bench::shape_of(size));
        const at::Tensor g = shuffled(bench::shape_of(size));
        const at::Tensor gamma = shuffled({size[1]});
        const at::Tensor beta = shuffled({size[1]});
        const std::vector<std::int64_t> inner{size[1]};
        bench::row("rows/layer_norm/" + bench::by(size), [=] { at::native_layer_norm(x, inner, gamma, beta, 1e-5); });
        const auto result = at::native_layer_norm(x, inner, gamma, beta, 1e-5);
        bench::row("rows/layer_norm_grad/" + bench::by(size), [=] {
            at::native_layer_norm_backward(g, x, inner, std::get<1>(result), std::get<2>(result), gamma, beta,
                                           {true, true, true});
        });
    }
}

void attention_rows() {
    for (const bench::Attention& a : bench::attentions) {
        const auto heads = [&] { return centred(a.shape()).to(a.wide ? at::kDouble : at::kFloat); };
        const at::Tensor q = heads(), k = heads(), v = heads();
        const auto attend = [causal = a.causal](const at::Tensor& x, const at::Tensor& y, const at::Tensor& z) {
            return at::scaled_dot_product_attention(x, y, z, {}, 0.0, causal);
        };
        bench::row("rows/attention/" + std::string(a.name), [=] { attend(q, k, v); });
        std::vector<at::Tensor> leaves;
        for (const at::Tensor& t : {q, k, v}) {
            leaves.push_back(t.clone().set_requires_grad(true));
        }
        const at::Tensor seed = at::ones_like(q);
        bench::row("rows/attention_training/" + std::string(a.name), [=] {
            const torch::AutoGradMode gradients(true);
            torch::autograd::grad({attend(leaves[0], leaves[1], leaves[2])}, leaves, {seed});
        });
    }
}

}  // namespace

void kernel_rows() {
    function_rows();
    softmax_rows();
    layer_norm_rows();
    attention_rows();
}

}  // namespace bench
