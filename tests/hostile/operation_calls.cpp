#include "calls.h"

namespace ornik::test {

namespace {

void make_packing(const Dims& lengths) { const Packing made(lengths); }

void write_npy(const Tensor* t) { npy_to_bytes(t); }
void write_npz(const Tensor* t) { npz_to_bytes({{"t", t}}); }
void write_safetensors(const Tensor* t) { safetensors_to_bytes({{"t", t}}); }

// A descriptor serves one forward call, and its copies none.
Tensor* convolve(Tensor* weight, Tensor* bias, Tensor* input) {
    ConvolDescriptor descriptor({4, 1, 1}, {1, 1}, {0, 0}, "custom", {1, 1}, 1);
    descriptor.build_dynamic(tensor_of('q').get(), tensor_of('j').get());
    return Conv2D_forward(weight, bias, input, descriptor);
}
Tensor* convolve_transposed(Tensor* weight, Tensor* bias, Tensor* input, bool use_bias) {
    ConvolDescriptorT2D descriptor(4, {1, 1}, {1, 1}, {0, 0}, "custom", {1, 1}, {0, 0}, 1);
    descriptor.build_dynamic(tensor_of('q').get(), tensor_of('j').get());
    return ConvT2D_forward(weight, bias, input, descriptor, use_bias);
}
template <typename Descriptor>
void build(const Tensor* input, const Tensor* weight, Descriptor descriptor) {
    descriptor.build_dynamic(input, weight);
}

}  // namespace

void add_operation_calls(CallTable& table) {
    ORNIK_CALLS("x", sum, prod, mean, l2_norm, logsumexp, ornik::max, ornik::min, argmax, argmin, median, any, all,
                cumsum, cumprod, softmax, log_softmax, cumsum_grad, cumprod_grad, softmax_grad, log_softmax_grad)
    ORNIK_CALLS("ox", sum_grad, prod_grad, mean_grad, l2_norm_grad, logsumexp_grad, max_grad, min_grad, median_grad)
    using Spread = Tensor* (*)(Tensor*, const std::vector<int>&, bool, double);
    using SpreadGrad = Tensor* (*)(Tensor*, Tensor*, const std::vector<int>&, bool, double);
    ORNIK_OVERLOAD("x", Spread, ornik::var)
    ORNIK_OVERLOAD("x", Spread, ornik::std_dev)
    ORNIK_OVERLOAD("x", Spread, ornik::std)
    ORNIK_OVERLOAD("ox", SpreadGrad, ornik::var_grad)
    ORNIK_OVERLOAD("ox", SpreadGrad, ornik::std_dev_grad)
    ORNIK_OVERLOAD("ox", SpreadGrad, ornik::std_grad)
    ORNIK_CALLS("x|0,0,1", trace)
    ORNIK_CALLS("ox|0,0,1", trace_grad)
    ORNIK_CALLS("x", ornik::sort, argsort, topk, unique, searchsorted)
    ORNIK_CALLS("xk", sort_grad)

    ORNIK_CALLS("xi", index_select, take, index_get)
    ORNIK_CALLS("xk", gather, scatter_grad, scatter_source_grad)
    ORNIK_CALLS("xkx", scatter, scatter_add)
    ORNIK_CALLS("x!kx", scatter_, scatter_add_)
    ORNIK_CALLS("mim", index_add)
    ORNIK_CALLS("m!im", index_add_)
    ORNIK_CALLS("xk", gather_grad)
    ORNIK_CALLS("mi", index_select_grad)
    ORNIK_CALLS("xk", take_grad)
    ORNIK_CALLS("Pi", index_get_grad)
    ORNIK_CALLS("m!iio", index_put_)
    ORNIK_CALLS("xb", masked_select)
    ORNIK_CALLS("vb", masked_select_grad)
    ORNIK_CALLS("x", nonzero)

    ORNIK_CALLS("sss!", &Tensor::dot)
    ORNIK_CALLS("ttt!", &Tensor::bmm)
    ORNIK_CALLS("qqq!", &Tensor::matmul4D)
    ORNIK_CALLS("s", kron, eigh, eigvalsh)
    ORNIK_CALLS("-00s", eigh_grad)
    ORNIK_CALLS("-s", solver)
    ORNIK_CALLS("vs", eigvalsh_grad)
    ORNIK_CALLS("svs", eigh_grad)
    ORNIK_CALLS("Es", kron_grad_t1, kron_grad_t2)
    ORNIK_CALLS("nnv|7", sparse_coo_tensor)
    ORNIK_CALLS("Nnv|7", sparse_csr_tensor)
    ORNIK_CALLS("s", to_coo, to_csr)
    ORNIK_CALLS("p", to_dense)
    ORNIK_CALLS("ps", sparse_dot)
    ORNIK_CALLS("sps", sparse_dot_grad_sparse)
    ORNIK_CALLS("sp", sparse_dot_grad_dense)

    ORNIK_CALLS("t", scaled_dot_product_attention, scaled_dot_product_attention_grad)
    ORNIK_CALLS("svsvsvsvttts|1", multi_head_attention)
    ORNIK_CALLS("svsvsvsvtttt", multi_head_attention_grad)
    ORNIK_CALLS("q", interpolate)
    ORNIK_CALLS("q|9", interpolate_grad)
    ORNIK_CALLS("x", make_packing, write_npy, write_npz, write_safetensors)
    ORNIK_CALLS("t", pack_sequences, unpack_sequences_grad)
    ORNIK_CALLS("F|0,3,0", pack_sequences_grad, unpack_sequences)
    ORNIK_CALLS("jCq|1", convolve, convolve_transposed)
    ORNIK_CALLS("qj", build<ConvolDescriptor>, build<ConvolDescriptorT2D>)
    ORNIK_CALLS("jq", Conv2D_x_grad, ConvT2D_x_grad)
    ORNIK_CALLS("qq", Conv2D_w_grad, ConvT2D_w_grad)
    ORNIK_CALLS("q|1", Conv2D_bias_grad, ConvT2D_bias_grad)
}

}  // namespace ornik::test
