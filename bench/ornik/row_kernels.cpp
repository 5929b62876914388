// row_kernels.cpp: rows of functions and their gradients, softmax, layer normalization and attention.
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tensors.h"

namespace bench {

namespace {

using ornik::KTensor;

// From -3 to 3.
TensorPtr centred(const Dims& shape) {
    TensorPtr t = shuffled(shape);
    t->mult_scalar_inplace(6);
    t->add_scalar_inplace(-3);
    return t;
}

void function_rows() {
    struct Function {
        const char* name;
        void (*into)(Tensor*, Tensor*);
        Tensor* (*gradient)(Tensor*, Tensor*, Tensor*);
    };
    for (const std::int64_t n : bench::function_sizes) {
        const TensorPtr in = centred({n});
        const TensorPtr g = shuffled({n});
        const TensorPtr out = filled({n}, 0);
        for (const Function& f :
             {Function{"exp", ornik::exp, nullptr}, Function{"tanh", ornik::tanh, ornik::tanh_grad},
              Function{"sigmoid", ornik::sigmoid, ornik::sigmoid_grad}, Function{"silu", ornik::silu, ornik::silu_grad},
              Function{"erf", ornik::erf, nullptr}, Function{"gelu", ornik::gelu, ornik::gelu_grad}}) {
            const std::string name = "rows/" + std::string(f.name);
            bench::row(
                name + "/" + std::to_string(n), [=] { f.into(in.get(), out.get()); }, 8 * n);
            if (f.gradient != nullptr) {
                bench::row(
                    name + "_grad/" + std::to_string(n), [=] { delete f.gradient(in.get(), out.get(), g.get()); },
                    12 * n);
            }
        }
    }
}

void softmax_rows() {
    for (const auto& size : bench::softmax_sizes) {
        const TensorPtr x = centred(bench::shape_of(size));
        const TensorPtr g = shuffled(bench::shape_of(size));
        const std::int64_t bytes = 8 * x->Size();
        struct Function {
            const char* name;
            Tensor* (*forward)(Tensor*, int);
            Tensor* (*gradient)(Tensor*, Tensor*, int);
        };
        for (const Function& f : {Function{"softmax", ornik::softmax, ornik::softmax_grad},
                                  Function{"log_softmax", ornik::log_softmax, ornik::log_softmax_grad}}) {
            const std::string name = "rows/" + std::string(f.name);
            const TensorPtr y(f.forward(x.get(), 1));
            bench::row(
                name + "/" + bench::by(size), [=] { delete f.forward(x.get(), 1); }, bytes);
            bench::row(
                name + "_grad/" + bench::by(size), [=] { delete f.gradient(g.get(), y.get(), 1); }, bytes * 3 / 2);
        }
    }
}

void layer_norm_rows() {
    for (const auto& size : bench::norm_sizes) {
        const TensorPtr x = centred(bench::shape_of(size));
        const TensorPtr g = shuffled(bench::shape_of(size));
        const TensorPtr gamma = shuffled({size[1]});
        const TensorPtr beta = shuffled({size[1]});
        const std::shared_ptr<ornik::Layer> layer(ornik::_LayerNormalization(true, 1e-5F, ""));
        bench::row(
            "rows/layer_norm/" + bench::by(size),
            [=] { delete layer->forward_dyn(gamma.get(), beta.get(), x.get(), true); }, 8 * x->Size());
        const std::shared_ptr<ornik::LLayerNorm> trained(
            static_cast<ornik::LLayerNorm*>(ornik::_LayerNormalization(true, 1e-5F, "")));
        delete trained->forward_dyn(gamma.get(), beta.get(), x.get(), true);
        bench::row(
            "rows/layer_norm_grad/" + bench::by(size),
            [=] {
                std::vector<Tensor*> saved = trained->get_fwd_cache();
                for (Tensor* one : trained->gradients(gamma.get(), beta.get(), x.get(), g.get(), saved)) {
                    delete one;
                }
            },
            12 * x->Size());
    }
}

void attention_rows() {
    for (const bench::Attention& a : bench::attentions) {
        const auto heads = [&] {
            const TensorPtr t = centred(a.shape());
            return KTensor(std::unique_ptr<Tensor>(a.wide ? t->astype(dtype::float64) : t->clone()));
        };
        const KTensor q = heads(), k = heads(), v = heads();
        const auto attend = [causal = a.causal](const KTensor& x, const KTensor& y, const KTensor& z) {
            return scaled_dot_product_attention(x, y, z, {.causal = causal});
        };
        bench::row(
            "rows/attention/" + std::string(a.name), [=] { attend(q, k, v); }, 0, a.flops());
        std::vector<KTensor> leaves;
        for (const KTensor& t : {q, k, v}) {
            leaves.push_back(t.clone().requires_grad());
        }
        const KTensor seed = KTensor::ones_like(q);
        bench::row(
            "rows/attention_training/" + std::string(a.name),
            [=] { grad({attend(leaves[0], leaves[1], leaves[2])}, leaves, {seed}); }, 0, 3 * a.flops());
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
