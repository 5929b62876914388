#include "layers/layer_embedding.h"

#include <utility>

#include "functional/embedding_passes.h"
#include "tensor/checks.h"

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
    check_embedding_indices(at, input);
    if (!weight->isFloat() && !weight->isComplexType()) {
        fail(at, "Embedding only supports float or complex.");
    }
    if (weight->Shape() != weight_shape) {
        fail(at, "Embedding needs a weight of shape ", weight_shape, ", however it is ", weight->Shape());
    }
    return embedding_indices(at, input, weight_shape[0]);
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
    return embedding_lookup(weight, indices, input->Shape()).release();
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
    return embedding_scatter(output_gradient, indices, vocabulary_).release();
}

}  // namespace ornik
