#include "layers/layer_embedding.h"

#include <utility>

#include "hardware/cpu/nn/cpu_embedding.h"
#include "tensor/borrowed.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik {

namespace {

// Indices as the kernels take them: contiguous, int64, in range.
Borrowed checked_indices(const Where& at, const Tensor* weight, Tensor* input, const Dims& weight_shape) {
    if (weight == nullptr || input == nullptr) {
        fail(at, "Embedding needs a weight and an input.");
    }
    check_operands(at, weight, input);
    if (weight->Device() != input->Device()) {
        fail(at, "Not same device for inputs of embedding.");
    }
    if (!input->isInteger() || input->isBool()) {
        fail(at, "Embedding needs integers as input.");
    }
    if (!weight->isFloat() && !weight->isComplexType()) {
        fail(at, "Embedding only supports float or complex.");
    }
    if (weight->Shape() != weight_shape) {
        fail(at, "Embedding needs a weight of shape ", weight_shape, ", however it is ", weight->Shape());
    }
    // A conversion is contiguous already; otherwise the tensor has the dtype and may need a copy.
    Borrowed indices =
        input->Dtype() == dtype::int64 ? Borrowed::contiguous(input) : Borrowed::of_dtype(input, dtype::int64);
    if (!device::cpu::indices_in_range(indices.get(), weight_shape[0])) {
        fail(at, "Embedding index out of range, there are ", weight_shape[0], " rows.");
    }
    return indices;
}

Dims with_width(Dims shape, std::int64_t width) {
    shape.push_back(width);
    return shape;
}

}  // namespace

LEmbedding::LEmbedding(int vocabulary, int width, std::string name, int first, int second)
    : Layer(name.empty() ? "embedding" : std::move(name), first, second), vocabulary_(vocabulary), width_(width) {
    if (vocabulary < 1 || width < 1) {
        fail(where("ornik::LEmbedding::LEmbedding"), "Embedding needs at least one row and one column, however it has ",
             vocabulary, " and ", width);
    }
}

Tensor* LEmbedding::forward_dyn(Tensor* weight, Tensor* /*bias*/, Tensor* input) {
    const Borrowed indices =
        checked_indices(where("ornik::LEmbedding::forward_dyn"), weight, input, {vocabulary_, width_});
    const Borrowed table = Borrowed::contiguous(weight);
    std::unique_ptr<Tensor> output = make_output(with_width(input->Shape(), width_), weight);
    device::cpu::take_rows(table.get(), indices.get(), output.get());
    return output.release();
}

Tensor* LEmbedding::backward_dyn(Tensor* weight, Tensor* /*bias*/, Tensor* input, Tensor* output_gradient, int node) {
    const Where at = where("ornik::LEmbedding::backward_dyn");
    if (node < 0 || node > 2) {
        fail(at, "NOT impl grad for this Node");
    }
    if (node != 1 || !_trainable) {
        return nullptr;
    }
    const Borrowed indices = checked_indices(at, weight, input, {vocabulary_, width_});
    if (output_gradient == nullptr || output_gradient->Shape() != with_width(input->Shape(), width_)) {
        fail(at, "Embedding needs a gradient of its output's shape.");
    }
    if (output_gradient->Device() != weight->Device()) {
        fail(at, "Not same device for inputs of embedding.");
    }
    if (output_gradient->Dtype() != weight->Dtype()) {
        fail(at, "Not same data type for inputs of embedding.");
    }
    const Borrowed rows = Borrowed::contiguous(output_gradient);
    std::unique_ptr<Tensor> result(Tensor::empty(weight->Shape(), weight->Device(), weight->Dtype()));
    device::cpu::add_rows_at(rows.get(), indices.get(), result.get());
    return result.release();
}

}  // namespace ornik
