// attention.cpp: scaled dot-product attention as batched products around a softmax.
#include "tensor/nn/attention.h"

#include <cmath>
#include <functional>
#include <numeric>

#include "attention_checks.h"
#include "hardware/cpu/nn/cpu_attention.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"

namespace ornik {

namespace {

// Extents of query [leading, n, d], key [leading, m, d], value [leading, m, e].
struct Extents {
    Dims leading;
    std::int64_t n;
    std::int64_t m;
    std::int64_t d;
    std::int64_t e;

    Dims with(std::int64_t rows, std::int64_t cols) const {
        Dims shape = leading;
        shape.insert(shape.end(), {rows, cols});
        return shape;
    }
    // Scores without features are 0 whatever their scale.
    double scale() const { return d == 0 ? 1 : 1 / std::sqrt(static_cast<double>(d)); }
};

Extents check(const Where& at, const Tensor* query, const Tensor* key, const Tensor* value) {
    const Dims& q = query->Shape();
    const Dims& k = key->Shape();
    const Dims& v = value->Shape();
    const auto leading = [](const Dims& shape) { return Dims(shape.begin(), shape.end() - 2); };
    const bool matrices = q.size() >= 2 && k.size() >= 2 && v.size() >= 2;
    if (!matrices || leading(q) != leading(k) || leading(q) != leading(v) || q.back() != k.back() ||
        k.end()[-2] != v.end()[-2]) {
        fail(at, "Attention needs a query [..., n, d], a key [..., m, d] and a value [..., m, e]: query ", q, ", key ",
             k, ", value ", v);
    }
    return {leading(q), q.end()[-2], k.end()[-2], q.back(), v.back()};
}

// [..., rows, cols] of a contiguous tensor as [batch, rows, cols].
std::unique_ptr<Tensor> as_batch(const Tensor* t) {
    const Dims& shape = t->Shape();
    const std::int64_t batch = std::accumulate(shape.begin(), shape.end() - 2, std::int64_t{1}, std::multiplies<>());
    return std::unique_ptr<Tensor>(view_tensor(t, {batch, shape.end()[-2], shape.back()}));
}

// op(a) op(b), matrix by matrix; both contiguous.
std::unique_ptr<Tensor> products(const Tensor* a, int ta, const Tensor* b, int tb, const Dims& shape) {
    std::unique_ptr<Tensor> result = make_output(shape, a);
    Tensor::bmm(as_batch(a).get(), ta, as_batch(b).get(), tb, as_batch(result.get()).get());
    return result;
}

}  // namespace

Tensor* scaled_dot_product_attention(Tensor* query, Tensor* key, Tensor* value, Tensor* mask, Tensor** probabilities) {
    const Where at = where("ornik::scaled_dot_product_attention");
    check_attention_operands(at, {query, key, value});
    const Extents extents = check(at, query, key, value);
    const Dims shape = extents.with(extents.n, extents.m);
    check_attention_mask(at, mask, query->Dtype(), query->Device(), shape);

    std::unique_ptr<Tensor> scores =
        products(Borrowed::contiguous(query).get(), 0, Borrowed::contiguous(key).get(), 1, shape);
    const std::unique_ptr<Tensor> expanded(mask == nullptr ? nullptr : Tensor::broadcast_to(mask, shape));
    device::cpu::attention_softmax(scores.get(), extents.scale(), expanded.get());
    std::unique_ptr<Tensor> output =
        products(scores.get(), 0, Borrowed::contiguous(value).get(), 0, extents.with(extents.n, extents.e));
    if (probabilities != nullptr) {
        *probabilities = scores.release();
    }
    return output.release();
}

AttentionGradients scaled_dot_product_attention_grad(Tensor* query, Tensor* key, Tensor* value, Tensor* probabilities,
                                                     Tensor* output_gradient) {
    const Where at = where("ornik::scaled_dot_product_attention_grad");
    check_attention_operands(at, {query, key, value, probabilities, output_gradient});
    const Extents extents = check(at, query, key, value);
    const Dims shape = extents.with(extents.n, extents.m);
    if (probabilities->Shape() != shape) {
        fail(at, "Attention needs probabilities of shape ", shape, ", their shape is ", probabilities->Shape());
    }
    check_attention_gradient(at, output_gradient, extents.with(extents.n, extents.e));

    const Borrowed p = Borrowed::contiguous(probabilities);
    const Borrowed g = Borrowed::contiguous(output_gradient);
    AttentionGradients gradients;
    gradients.value = products(p.get(), 1, g.get(), 0, value->Shape());
    const std::unique_ptr<Tensor> scores = products(g.get(), 0, Borrowed::contiguous(value).get(), 1, shape);
    device::cpu::attention_softmax_grad(p.get(), scores.get(), extents.scale());
    gradients.query = products(scores.get(), 0, Borrowed::contiguous(key).get(), 0, query->Shape());
    gradients.key = products(scores.get(), 1, Borrowed::contiguous(query).get(), 0, key->Shape());
    return gradients;
}

}  // namespace ornik
