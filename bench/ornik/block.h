// block.h: a transformer block of modules, normalizations in front of its parts.
#pragma once

#include <ornik.h>

namespace bench {

struct Block : ornik::Module {
    Block(std::int64_t width, int head_count) : heads(head_count), width_(width) {}

    ornik::KTensor forward(const ornik::KTensor& x) override {
        const ornik::KTensor y = x + attend(norm1(x));
        return y + down(gelu(up(norm2(y))));
    }

    int heads;

  private:
    ornik::KTensor attend(const ornik::KTensor& x) const {
        const ornik::Dims split{x.size(0), x.size(1), heads, width_ / heads};
        const auto in_heads = [&](const ornik::KTensor& t) { return permute(reshape(t, split), {0, 2, 1, 3}); };
        const ornik::KTensor q = in_heads(query(x));
        const ornik::KTensor k = in_heads(key(x));
        const ornik::KTensor v = in_heads(value(x));
        const ornik::KTensor attended = scaled_dot_product_attention(q, k, v, {.causal = true});
        return out(reshape(permute(attended, {0, 2, 1, 3}), x.shape()));
    }
    ornik::Part<ornik::Linear> linear(const char* name, std::int64_t in, std::int64_t outputs) {
        return add(name, ornik::Linear(in, outputs));
    }

    std::int64_t width_;
    ornik::Part<ornik::LayerNorm> norm1 = add("norm1", ornik::LayerNorm({width_}));
    ornik::Part<ornik::Linear> query = linear("query", width_, width_);
    ornik::Part<ornik::Linear> key = linear("key", width_, width_);
    ornik::Part<ornik::Linear> value = linear("value", width_, width_);
    ornik::Part<ornik::Linear> out = linear("out", width_, width_);
    ornik::Part<ornik::LayerNorm> norm2 = add("norm2", ornik::LayerNorm({width_}));
    ornik::Part<ornik::Linear> up = linear("up", width_, 4 * width_);
    ornik::Part<ornik::Linear> down = linear("down", 4 * width_, width_);
};

}  // namespace bench
