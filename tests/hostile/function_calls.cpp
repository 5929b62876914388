#include "calls.h"

namespace ornik::test {

namespace {

Tensor* pick_positions(const Tensor* x, const Tensor* positions) {
    return index_advanced(x, {SliceItem::positions(positions)});
}
void put_positions(Tensor* x, const Tensor* value, const Tensor* positions, bool accumulate) {
    set_index_advanced(x, value, {SliceItem::positions(positions)}, accumulate);
}
nn::Attended attend(Tensor* query, Tensor* key, Tensor* value, Tensor* mask, double scale, double dropout) {
    nn::AttentionOptions options;
    options.mask = mask;
    options.scale = scale;
    options.dropout = dropout;
    return nn::attention(query, key, value, options);
}
nn::AttendedRows attend_rows(Tensor* query, Tensor* key, Tensor* value, Tensor* mask, double scale) {
    return nn::attention_rows(query, key, value, {.mask = mask, .scale = scale});
}
nn::AttentionGradients attend_rows_grad(Tensor* gradient, Tensor* query, Tensor* key, Tensor* value, Tensor* output,
                                        Tensor* log_sums, Tensor* mask) {
    return nn::attention_rows_grad(gradient, query, key, value, {output, log_sums}, {.mask = mask});
}
TensorPtr weigh_elements(nn::ElementLoss loss, Tensor* prediction, Tensor* target, Tensor* weight, Tensor* positive) {
    nn::ElementLossOptions options;
    options.weight = weight;
    options.positive_weight = positive;
    return nn::element_loss(loss, prediction, target, options);
}
TensorPtr weigh_classes(Tensor* prediction, Tensor* target, Tensor* weight, std::int64_t ignored, double smoothing) {
    nn::ClassLossOptions options;
    options.weight = weight;
    options.ignore_index = ignored;
    options.label_smoothing = smoothing;
    return nn::cross_entropy(prediction, target, options);
}
nn::PoolParameters windows_of(std::int64_t kernel, std::int64_t stride, std::int64_t padding) {
    nn::PoolParameters parameters;
    parameters.kernel.fill(kernel);
    parameters.stride.fill(stride);
    parameters.padding.fill(padding);
    return parameters;
}
nn::MaxPool pool_largest(Tensor* input, std::int64_t kernel, std::int64_t stride, std::int64_t padding) {
    return nn::max_pool(input, windows_of(kernel, stride, padding));
}
TensorPtr pool_average(Tensor* input, std::int64_t kernel, std::int64_t stride, std::int64_t padding) {
    return nn::average_pool(input, windows_of(kernel, stride, padding));
}
TensorPtr convolve_by(Tensor* input, Tensor* weight, Tensor* bias, std::int64_t stride, std::int64_t padding,
                      std::int64_t dilation, std::int64_t groups, bool transposed) {
    nn::ConvParameters parameters;
    parameters.stride.fill(stride);
    parameters.padding.fill({padding, padding});
    parameters.dilation.fill(dilation);
    parameters.groups = groups;
    parameters.transposed = transposed;
    return nn::convolution(input, weight, bias, parameters);
}

}  // namespace

// Rows that start with ~ may be refused: their good arguments take more than letters.
void add_function_calls(CallTable& table) {
    ORNIK_CALLS("x|0,0", concatenate, stack_along, unbind, expand_dims)
    ORNIK_CALLS("~x", split, chunk, moveaxis, flip_view, meshgrid, windows, windows_grad, repeat, repeat_grad,
                repeat_interleave, repeat_interleave_grad, roll, pad, pad_grad, diagonal_grad, diag_embed, diag,
                diag_grad, ornik::tril, ornik::triu, sum_to_shape)
    ORNIK_CALLS("~xi", repeat_by_counts, repeat_by_counts_grad)
    ORNIK_CALLS("x", slices_shape, select_slices, select_slices_grad, set_slices_grad, set_slices_value_grad)
    ORNIK_CALLS("x!x", set_slices, add_select_slices_grad)
    ORNIK_CALLS("s", matmul)
    ORNIK_CALLS("~s", matmul_shape, matmul_grad_a, matmul_grad_b)
    ORNIK_CALLS("sss!|0,0", matmul_into)
    ORNIK_CALLS("s!ss|0,0", add_matmul_grad_a, add_matmul_grad_b)
    ORNIK_CALLS("~x", l2_norm_grad_from, std_dev_grad_from, logsumexp_grad_from, extreme_grad_from)
    ORNIK_CALLS("~svs", eigh_grad_from)
    ORNIK_CALLS("s", qr, svd, svdvals, eig, eigvals, det, slogdet)
    ORNIK_CALLS("x", floor_divide, ornik::copysign, ornik::hypot, logaddexp, ornik::nextafter, ornik::signbit)
    ORNIK_CALLS("~so", cholesky, inv, solve, pinv, matrix_rank)
    ORNIK_CALLS("r|0,3,3", fourier, fourier_to_real)
    ORNIK_CALLS("s|0,3,3", fourier_of_real)
    ORNIK_CALLS("~xi", index_put_grad, index_put_values_grad)
    ORNIK_CALLS("mi", pick_positions)
    ORNIK_CALLS("m!mi", put_positions)
    ORNIK_CALLS("~x", index_advanced_grad, set_index_advanced_grad, set_index_advanced_value_grad,
                ornik::set_select_ndim_grad, set_select_ndim_value_grad)
    ORNIK_CALLS("~tttt|0,0", attend)
    ORNIK_CALLS("~tttt|0", attend_rows)
    ORNIK_CALLS("tttttxt", attend_rows_grad)
    ORNIK_CALLS("~t", nn::attention_grad)

    ORNIK_CALLS("x", nn::relu, nn::leaky_relu, nn::elu, nn::selu, nn::hardsigmoid, nn::hardswish, nn::mish)
    ORNIK_CALLS("x|0,1", nn::hardtanh)
    ORNIK_CALLS("x!", nn::relu_inplace, nn::leaky_relu_inplace, nn::elu_inplace, nn::selu_inplace,
                nn::hardsigmoid_inplace, nn::hardswish_inplace, nn::mish_inplace)
    ORNIK_CALLS("x!|0,1", nn::hardtanh_inplace)
    ORNIK_CALLS("x", nn::relu_grad, nn::leaky_relu_grad, nn::elu_grad, nn::selu_grad, nn::hardsigmoid_grad,
                nn::hardswish_grad, nn::mish_grad)
    ORNIK_CALLS("x|0,1", nn::hardtanh_grad)
    ORNIK_CALLS("xsv", nn::linear)
    ORNIK_CALLS("xs", nn::linear_input_grad)
    ORNIK_CALLS("xxs", nn::linear_grad)
    ORNIK_CALLS("x", nn::linear_weight_grad, nn::linear_bias_grad, nn::dropout)
    ORNIK_CALLS("~xb", nn::dropout_channels, nn::dropout_grad)
    ORNIK_CALLS("~is", nn::embedding)
    ORNIK_CALLS("~xi|3", nn::embedding_grad)
    ORNIK_CALLS("xvv", nn::batch_norm)
    ORNIK_CALLS("xvvvv", nn::batch_norm_by)
    ORNIK_CALLS("~xxvvv", nn::batch_norm_grad, nn::layer_norm_grad, nn::group_norm_grad)
    ORNIK_CALLS("v!v!v|4", nn::update_running_statistics)
    ORNIK_CALLS("xvv|1", nn::layer_norm, nn::group_norm)
    ORNIK_CALLS("~q|2,2,0", pool_largest, pool_average)
    ORNIK_CALLS("~gu", nn::max_pool_grad)
    ORNIK_CALLS("~g", nn::average_pool_grad, nn::adaptive_average_pool_grad)
    ORNIK_CALLS("q|2,2", nn::adaptive_average_pool)
    ORNIK_CALLS("qjC|1,0,1,1", convolve_by)
    ORNIK_CALLS("~qj", nn::convolution_input_grad, nn::convolution_weight_grad, nn::convolution_grad)
    ORNIK_CALLS("q", nn::convolution_bias_grad)
    ORNIK_CALLS("tssWWVV|0,3", nn::lstm)
    ORNIK_CALLS("tsXXYY|0,3", nn::gru)
    ORNIK_CALLS("-000tssWWVV000|0,3", nn::lstm_grad)
    ORNIK_CALLS("-000tsXXYY000|0,3", nn::gru_grad)
    for (const char* good : {"~x|0", "~x|1", "~x|2", "~x|3", "~x|4", "~x|5", "~x|6", "~x|7"}) {
        ORNIK_CALLS(good, weigh_elements)
    }
    ORNIK_CALLS("~x", nn::element_loss_grad)
    ORNIK_CALLS("~xiv", weigh_classes, nn::nll_loss)
    ORNIK_CALLS("~oxi", nn::cross_entropy_grad, nn::nll_loss_grad)
    ORNIK_CALLS("x!x0", nn::sgd_step)
    ORNIK_CALLS("x!xx!x?x?", nn::rmsprop_step)
    ORNIK_CALLS("x!xx!x!x!", nn::adam_step)
    ORNIK_CALLS("x!xx!x!", nn::adamax_step, nn::adadelta_step)
    ORNIK_CALLS("x!xx!", nn::adagrad_step)
    ORNIK_CALLS("-kk0", nn::sgd_step)
    ORNIK_CALLS("-k", nn::rmsprop_step, nn::adam_step, nn::adamax_step, nn::adadelta_step, nn::adagrad_step)
    ORNIK_CALLS("-e|2,3", pad)
}

}  // namespace ornik::test
