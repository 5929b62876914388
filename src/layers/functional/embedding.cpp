#include "layers/functional/embedding.h"

#include "embedding_passes.h"
#include "hardware/cpu/nn/cpu_embedding.h"
#include "tensor/checks.h"
#include "tensor/make_tensor.h"

namespace ornik {

void check_embedding_indices(const Where& at, const Tensor* indices) {
    check_operands(at, indices);
    if (!indices->isInteger() || indices->isBool()) {
        fail(at, "Embedding needs integers as input.");
    }
}

Borrowed embedding_indices(const Where& at, Tensor* indices, std::int64_t rows) {
    // A conversion is contiguous already; otherwise the tensor has the dtype and may need a copy.
    Borrowed result =
        indices->Dtype() == dtype::int64 ? Borrowed::contiguous(indices) : Borrowed::of_dtype(indices, dtype::int64);
    if (!device::cpu::indices_in_range(result.get(), rows)) {
        fail(at, "Embedding index out of range, there are ", rows, " rows.");
    }
    return result;
}

std::unique_ptr<Tensor> embedding_lookup(Tensor* weight, const Borrowed& indices, const Dims& shape) {
    const Borrowed table = Borrowed::contiguous(weight);
    Dims output_shape = shape;
    output_shape.push_back(weight->Shape()[1]);
    std::unique_ptr<Tensor> output = make_output(output_shape, weight);
    device::cpu::take_rows(table.get(), indices.get(), output.get());
    return output;
}

std::unique_ptr<Tensor> embedding_scatter(Tensor* gradient, const Borrowed& indices, std::int64_t rows) {
    const Borrowed from = Borrowed::contiguous(gradient);
    std::unique_ptr<Tensor> result = make_tensor({rows, gradient->Shape().back()}, gradient->Dtype());
    device::cpu::add_rows_at(from.get(), indices.get(), result.get());
    return result;
}

namespace nn {

namespace {

void check_numbers(const Where& at, const Tensor* t, const Tensor* indices) {
    if (t->Device() != indices->Device()) {
        fail(at, "Not same device for inputs of embedding.");
    }
    check_operands(at, t);
    check_embedding_indices(at, indices);
    if (!t->isFloat() && !t->isComplexType()) {
        fail(at, "Embedding only supports float or complex.");
    }
}

}  // namespace

std::unique_ptr<Tensor> embedding(Tensor* indices, Tensor* weight) {
    const Where at = where("ornik::nn::embedding");
    if (weight == nullptr || indices == nullptr) {
        fail(at, "Embedding needs a weight and an input.");
    }
    check_numbers(at, weight, indices);
    if (weight->ndim() != 2 || weight->Size() < 1) {
        fail(at, "Embedding needs a weight [rows, width], however it is ", weight->Shape());
    }
    return embedding_lookup(weight, embedding_indices(at, indices, weight->Shape()[0]), indices->Shape());
}

std::unique_ptr<Tensor> embedding_grad(Tensor* output_gradient, Tensor* indices, std::int64_t rows,
                                       std::optional<std::int64_t> padding_index) {
    const Where at = where("ornik::nn::embedding_grad");
    if (output_gradient == nullptr || indices == nullptr) {
        fail(at, "Embedding needs an input and its output's gradient.");
    }
    check_numbers(at, output_gradient, indices);
    const Dims& shape = output_gradient->Shape();
    if (shape.empty() || shape.back() < 1 || Dims(shape.begin(), shape.end() - 1) != indices->Shape()) {
        fail(at, "Embedding needs a gradient of its output's shape.");
    }
    if (rows < 1 || (padding_index && (*padding_index < 0 || *padding_index >= rows))) {
        fail(at, "Embedding needs a padding index inside its rows, of which there are ", rows);
    }
    std::unique_ptr<Tensor> result = embedding_scatter(output_gradient, embedding_indices(at, indices, rows), rows);
    if (padding_index) {
        const std::int64_t width = shape.back();
        const std::unique_ptr<Tensor> row(
            share_storage_tensor(result->getStorage(), {width}, {1}, result->Dtype(), *padding_index * width));
        row->fill_(0);
    }
    return result;
}

}  // namespace nn

}  // namespace ornik
