// attention.cpp: scaled dot-product attention as batched products around a softmax.
#include "tensor/nn/attention.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "attention_checks.h"
#include "hardware/cpu/nn/cpu_attention.h"
#include "hardware/cpu/nn/cpu_dropout.h"
#include "hardware/cpu/random/cpu_random.h"
#include "tensor/borrowed.h"
#include "tensor/make_tensor.h"
#include "tensor/tensor_math/reductions.h"

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
    /// One number for each query.
    Dims rows() const {
        Dims shape = leading;
        shape.push_back(n);
        return shape;
    }
    double scale(const nn::AttentionOptions& options) const {
        // Scores without features are 0 whatever their scale.
        return options.scale != 0 ? options.scale : d == 0 ? 1 : 1 / std::sqrt(static_cast<double>(d));
    }
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

// The probabilities as the values meet them: themselves, or a tensor made by dropout.
class Met {
  public:
    Met(Tensor* probabilities, const Tensor* kept, double dropout) : probabilities_(probabilities) {
        if (kept != nullptr && probabilities->Size() > 0) {
            made_ = make_tensor(probabilities->Shape(), probabilities->Dtype());
            device::cpu::keep_scaled(probabilities, kept, keep_scale(dropout), made_.get());
        }
    }
    static double keep_scale(double dropout) { return dropout < 1 ? 1 / (1 - dropout) : 0.0; }
    const Tensor* get() const { return made_ ? made_.get() : probabilities_; }

  private:
    const Tensor* probabilities_;
    std::unique_ptr<Tensor> made_;
};

nn::Attended attend(const Where& at, Tensor* query, Tensor* key, Tensor* value, const nn::AttentionOptions& options) {
    check_attention_operands(at, {query, key, value});
    const Extents extents = check(at, query, key, value);
    const Dims shape = extents.with(extents.n, extents.m);
    check_attention_mask(at, options.mask, query->Dtype(), query->Device(), shape);
    nn::Attended result;
    result.probabilities = products(Borrowed::contiguous(query).get(), 0, Borrowed::contiguous(key).get(), 1, shape);
    const std::unique_ptr<Tensor> expanded(options.mask == nullptr ? nullptr
                                                                   : Tensor::broadcast_to(options.mask, shape));
    device::cpu::attention_softmax(result.probabilities.get(), extents.scale(options), expanded.get(), options.causal);
    if (options.dropout > 0) {
        result.kept = make_tensor(shape, dtype::boolean);
        if (result.kept->Size() > 0) {
            generator::Lease source;
            device::cpu::fill_kept(source, result.kept.get(), query->Dtype(), 1 - options.dropout);
        }
    }
    const Met met(result.probabilities.get(), result.kept.get(), options.dropout);
    result.output = products(met.get(), 0, Borrowed::contiguous(value).get(), 0, extents.with(extents.n, extents.e));
    return result;
}

// The tensor itself if the rows of its matrices hold adjacent elements, or else a copy whose rows do.
class WithRows {
  public:
    explicit WithRows(Tensor* t) : tensor_(t) {
        const std::int64_t row = t->Strides().end()[-2];
        const std::int64_t cols = t->Shape().back();
        if (t->Size() > 0 && ((cols > 1 && t->Strides().back() != 1) || row < cols)) {
            copy_ = std::make_unique<Borrowed>(Borrowed::contiguous(t));
            tensor_ = copy_->get();
        }
    }
    const Tensor* get() const { return tensor_; }

  private:
    std::unique_ptr<Borrowed> copy_;
    Tensor* tensor_;
};

// A new tensor whose axes but the last follow each other in memory as those of `like` do.
std::unique_ptr<Tensor> laid_out_like(const Tensor* like, const Dims& shape) {
    std::vector<int> order(shape.size());
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end() - 1, [&](int a, int b) {
        return like->Strides()[static_cast<std::size_t>(a)] > like->Strides()[static_cast<std::size_t>(b)];
    });
    if (std::is_sorted(order.begin(), order.end())) {
        return make_output(shape, like);
    }
    Dims laid;
    std::vector<int> back(order.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        laid.push_back(shape[static_cast<std::size_t>(order[i])]);
        back[static_cast<std::size_t>(order[i])] = static_cast<int>(i);
    }
    return std::unique_ptr<Tensor>(make_output(laid, like)->permute(back));
}

nn::AttendedRows attend_rows(const Where& at, Tensor* query, Tensor* key, Tensor* value,
                             const nn::AttentionOptions& options) {
    check_attention_operands(at, {query, key, value});
    const Extents extents = check(at, query, key, value);
    const Dims shape = extents.with(extents.n, extents.m);
    check_attention_mask(at, options.mask, query->Dtype(), query->Device(), shape);
    nn::AttendedRows result{laid_out_like(query, extents.with(extents.n, extents.e)), nullptr};
    result.log_sums = make_output(extents.rows(), query);
    const WithRows q(query), k(key), v(value);
    const std::unique_ptr<Tensor> expanded(options.mask == nullptr ? nullptr
                                                                   : Tensor::broadcast_to(options.mask, shape));
    device::cpu::attention_rows({q.get(), k.get(), v.get(), expanded.get(), extents.scale(options), options.causal},
                                result.output.get(), result.log_sums.get());
    return result;
}

// Which tensors the gradients are formed from, checked.
struct Saved {
    Tensor* query;
    Tensor* key;
    Tensor* value;
    Tensor* probabilities;
    Tensor* kept;
    Tensor* gradient;
};

// The gradient of a mask that was broadcast to the scores.
std::unique_ptr<Tensor> sum_to_mask(Tensor* scores, const Dims& mask) {
    std::vector<int> axes;
    const std::size_t more = scores->Shape().size() - mask.size();
    for (std::size_t i = 0; i < scores->Shape().size(); ++i) {
        if (i < more || mask[i - more] != scores->Shape()[i]) {
            axes.push_back(static_cast<int>(i));
        }
    }
    const std::unique_ptr<Tensor> total(axes.empty() ? nullptr : sum(scores, axes, true));
    return std::unique_ptr<Tensor>(view_tensor(total ? total.get() : scores, mask));
}

nn::AttentionGradients attend_grad(const Where& at, const Saved& from, const nn::AttentionOptions& options,
                                   const std::array<bool, 4>& wanted) {
    check_attention_operands(at, {from.query, from.key, from.value, from.probabilities, from.gradient});
    const Extents extents = check(at, from.query, from.key, from.value);
    const Dims shape = extents.with(extents.n, extents.m);
    if (from.probabilities->Shape() != shape) {
        fail(at, "Attention needs probabilities of shape ", shape, ", their shape is ", from.probabilities->Shape());
    }
    if ((from.kept != nullptr) != (options.dropout > 0) ||
        (from.kept != nullptr && (!from.kept->isBool() || from.kept->Shape() != shape))) {
        fail(at, "Attention with dropout needs the bool tensor of its forward pass.");
    }
    check_attention_gradient(at, from.gradient, extents.with(extents.n, extents.e));
    if (wanted[3]) {
        check_attention_mask(at, options.mask, from.query->Dtype(), from.query->Device(), shape);
        if (options.mask == nullptr || options.mask->isBool()) {
            fail(at, "Attention has no mask that could have a gradient.");
        }
    }

    const Borrowed p = Borrowed::contiguous(from.probabilities);
    const Borrowed g = Borrowed::contiguous(from.gradient);
    nn::AttentionGradients gradients;
    if (wanted[2]) {
        const Met met(p.get(), from.kept, options.dropout);
        gradients.value = products(met.get(), 1, g.get(), 0, from.value->Shape());
    }
    if (!wanted[0] && !wanted[1] && !wanted[3]) {
        return gradients;
    }
    const std::unique_ptr<Tensor> scores = products(g.get(), 0, Borrowed::contiguous(from.value).get(), 1, shape);
    const double scale = extents.scale(options);
    if (scores->Size() > 0) {
        if (from.kept != nullptr) {
            device::cpu::keep_scaled(scores.get(), from.kept, Met::keep_scale(options.dropout), scores.get());
        }
        // The mask is added behind the scale.
        device::cpu::attention_softmax_grad(p.get(), scores.get(), wanted[3] ? 1 : scale);
    }
    if (wanted[3]) {
        if (scores->Size() > 0) {
            gradients.mask = sum_to_mask(scores.get(), options.mask->Shape());
            gradients.mask.reset(gradients.mask->clone());  // The scores change below.
            scores->mult_scalar_inplace(scale);
        } else {
            gradients.mask = make_tensor(options.mask->Shape(), scores->Dtype());
            gradients.mask->fill_(0);
        }
    }
    if (wanted[0]) {
        gradients.query = products(scores.get(), 0, Borrowed::contiguous(from.key).get(), 0, from.query->Shape());
    }
    if (wanted[1]) {
        gradients.key = products(scores.get(), 1, Borrowed::contiguous(from.query).get(), 0, from.key->Shape());
    }
    return gradients;
}

void check_options(const Where& at, const nn::AttentionOptions& options) {
    if (!(options.dropout >= 0 && options.dropout <= 1)) {
        fail(at, "Probability should be in the range of [0, 1].");
    }
    if (!std::isfinite(options.scale)) {
        fail(at, "The scale of attention should be finite.");
    }
}

void check_no_dropout(const Where& at, const nn::AttentionOptions& options) {
    if (options.dropout > 0) {
        fail(at, "Attention without probabilities has no dropout.");
    }
}

}  // namespace

Tensor* scaled_dot_product_attention(Tensor* query, Tensor* key, Tensor* value, Tensor* mask, Tensor** probabilities) {
    const Where at = where("ornik::scaled_dot_product_attention");
    if (probabilities == nullptr) {
        return attend_rows(at, query, key, value, {.mask = mask}).output.release();
    }
    nn::Attended result = attend(at, query, key, value, {.mask = mask});
    *probabilities = result.probabilities.release();
    return result.output.release();
}

AttentionGradients scaled_dot_product_attention_grad(Tensor* query, Tensor* key, Tensor* value, Tensor* probabilities,
                                                     Tensor* output_gradient) {
    nn::AttentionGradients result =
        attend_grad(where("ornik::scaled_dot_product_attention_grad"),
                    {query, key, value, probabilities, nullptr, output_gradient}, {}, {true, true, true, false});
    return {std::move(result.query), std::move(result.key), std::move(result.value)};
}

namespace nn {

Attended attention(Tensor* query, Tensor* key, Tensor* value, const AttentionOptions& options) {
    const Where at = where("ornik::nn::attention");
    check_options(at, options);
    return attend(at, query, key, value, options);
}

AttentionGradients attention_grad(Tensor* output_gradient, Tensor* query, Tensor* key, Tensor* value,
                                  Tensor* probabilities, Tensor* kept, const AttentionOptions& options,
                                  const std::array<bool, 4>& wanted) {
    const Where at = where("ornik::nn::attention_grad");
    check_options(at, options);
    return attend_grad(at, {query, key, value, probabilities, kept, output_gradient}, options, wanted);
}

AttendedRows attention_rows(Tensor* query, Tensor* key, Tensor* value, const AttentionOptions& options) {
    const Where at = where("ornik::nn::attention");
    check_options(at, options);
    check_no_dropout(at, options);
    return attend_rows(at, query, key, value, options);
}

AttentionGradients attention_rows_grad(Tensor* output_gradient, Tensor* query, Tensor* key, Tensor* value,
                                       const SavedRows& saved, const AttentionOptions& options,
                                       const std::array<bool, 3>& wanted) {
    const Where at = where("ornik::nn::attention_grad");
    check_options(at, options);
    check_no_dropout(at, options);
    check_attention_operands(at, {query, key, value, saved.output, saved.log_sums, output_gradient});
    const Extents extents = check(at, query, key, value);
    const Dims shape = extents.with(extents.n, extents.e);
    check_attention_gradient(at, output_gradient, shape);
    if (saved.output->Shape() != shape || saved.log_sums->Shape() != extents.rows()) {
        fail(at, "Attention needs its output of shape ", shape, " and logarithms of sums of shape ", extents.rows(),
             ", their shapes are ", saved.output->Shape(), " and ", saved.log_sums->Shape());
    }
    const Dims scores = extents.with(extents.n, extents.m);
    check_attention_mask(at, options.mask, query->Dtype(), query->Device(), scores);
    const auto made = [&](bool is_wanted, const Tensor* t) {
        return is_wanted ? laid_out_like(t, t->Shape()) : nullptr;
    };
    AttentionGradients result{made(wanted[0], query), made(wanted[1], key), made(wanted[2], value), nullptr};
    const WithRows q(query), k(key), v(value);
    const WithRows y(saved.output), g(output_gradient);
    const std::unique_ptr<Tensor> expanded(options.mask == nullptr ? nullptr
                                                                   : Tensor::broadcast_to(options.mask, scores));
    const Borrowed log_sums = Borrowed::contiguous(saved.log_sums);
    device::cpu::attention_rows_grad(
        {q.get(), k.get(), v.get(), expanded.get(), extents.scale(options), options.causal}, {y.get(), log_sums.get()},
        g.get(), result.query.get(), result.key.get(), result.value.get());
    return result;
}

}  // namespace nn

}  // namespace ornik
