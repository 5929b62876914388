// cpu_attention_rows.cpp: attention in one pass over keys, which keeps one number per query instead of probabilities.
//
// Keys come in tiles of a fixed size, each with its own highest scores: what earlier tiles have added up is scaled down
// when a later one holds a higher score. Tiles of queries do not meet, and may be of any size.
#include <algorithm>
#include <cmath>
#include <limits>

#include "descriptors/element_load.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_attention.h"
#include "hardware/cpu/nn/row_exp.h"
#include "hardware/cpu/product/cpu_product.h"
#include "hardware/parallel.h"
#include "hardware/scratch.h"

namespace ornik::device::cpu {

namespace {

constexpr std::int64_t key_tile = 256;
constexpr std::int64_t key_tile_back = 128;  // of the gradients
constexpr std::int64_t query_tile = 128;
constexpr std::int64_t grain_work = 1 << 17;  // multiplications worth a second thread

// A matrix of every head: rows of adjacent elements, `row` apart.
template <typename T>
class Heads {
  public:
    Heads() = default;
    explicit Heads(const Tensor* t) : tensor_(t), row(t->Strides().end()[-2]) {}
    T* head(std::int64_t h) const {
        std::int64_t offset = 0;
        for (std::size_t axis = tensor_->Shape().size() - 2; axis-- > 0;) {
            offset += h % tensor_->Shape()[axis] * tensor_->Strides()[axis];
            h /= tensor_->Shape()[axis];
        }
        return static_cast<T*>(tensor_->getRawData()) + offset;
    }
    explicit operator bool() const { return tensor_ != nullptr; }

  private:
    const Tensor* tensor_ = nullptr;

  public:
    std::int64_t row = 0;
};

template <typename T>
struct Matrix {
    const T* data;
    std::int64_t row;
    bool turned = false;
};

// c [rows, cols] = a b, or c + a b; on the calling thread when it is one of several.
template <typename T>
void multiply(std::int64_t rows, std::int64_t cols, std::int64_t depth, const Matrix<T>& a, const Matrix<T>& b, T* c,
              std::int64_t c_row, bool add) {
    product(dtype_code<T>,
            {1, rows, cols, depth, a.turned, b.turned, add, {a.row, nullptr}, {b.row, nullptr}, {c_row, nullptr}},
            a.data, b.data, c);
}

template <typename T>
class Attention {
  public:
    explicit Attention(const AttentionOperands& from)
        : query_(from.query),
          key_(from.key),
          value_(from.value),
          mask_(from.mask),
          factor_(static_cast<T>(from.scale)),
          causal_(from.causal),
          n_(from.query->Shape().end()[-2]),
          m_(from.key->Shape().end()[-2]),
          d_(from.query->Shape().back()),
          e_(from.value->Shape().back()),
          heads_(n_ > 0 && d_ + e_ > 0 ? count_heads(from.query) : 0) {}

    void forward(Tensor* out, Tensor* log_sums) const {
        const Heads<T> outputs(out);
        T* sums = static_cast<T*>(log_sums->getRawData());
        const std::int64_t tiles = (n_ + query_tile - 1) / query_tile;
        parallel_for(heads_ * tiles, 1, grain(std::min(n_, query_tile)), [&](std::int64_t begin, std::int64_t end) {
            const Scratch<T> scores(query_tile * key_tile);
            for (std::int64_t task = begin; task < end; ++task) {
                const std::int64_t h = task / tiles;
                const std::int64_t first = task % tiles * query_tile;
                forward_tile(h, first, std::min(query_tile, n_ - first), scores.get(),
                             outputs.head(h) + first * outputs.row, outputs.row, sums + h * n_ + first);
            }
        });
    }

    void backward(const AttentionResult& result, const Tensor* gradient, Tensor* query_gradient, Tensor* key_gradient,
                  Tensor* value_gradient) const {
        const Gradients to{of(query_gradient), of(key_gradient), of(value_gradient)};
        const Heads<T> output(result.output);
        const Heads<T> from(gradient);
        const T* sums = static_cast<const T*>(result.log_sums->getRawData());
        parallel_for(heads_, 1, grain(n_), [&](std::int64_t begin, std::int64_t end) {
            const Scratch<T> memory(2 * query_tile * key_tile_back + n_);
            for (std::int64_t h = begin; h < end; ++h) {
                backward_head(h, output, from, sums + h * n_, to, memory.get());
            }
        });
    }

  private:
    struct Gradients {
        Heads<T> query;
        Heads<T> key;
        Heads<T> value;
    };

    static Heads<T> of(const Tensor* t) { return t != nullptr ? Heads<T>(t) : Heads<T>(); }
    static std::int64_t count_heads(const Tensor* t) {
        std::int64_t count = 1;
        for (std::size_t axis = 0; axis + 2 < t->Shape().size(); ++axis) {
            count *= t->Shape()[axis];
        }
        return count;
    }
    std::int64_t grain(std::int64_t queries) const {
        const std::int64_t work = queries * m_ * (d_ + e_);
        return std::max<std::int64_t>(2, grain_work / std::max<std::int64_t>(1, work));
    }
    // Keys that some of the queries before `end` may see.
    std::int64_t keys_for(std::int64_t end) const { return causal_ ? std::min(m_, end) : m_; }
    // Of `count` keys from `key` on, those that the query sees.
    std::int64_t seen(std::int64_t query, std::int64_t key, std::int64_t count) const {
        return causal_ ? std::clamp<std::int64_t>(query + 1 - key, 0, count) : count;
    }

    // scores[i * step] become what the softmax of a query sees, for `count` keys from `key` on (`along` 1), or those of
    // `count` queries from `query` on (`along` 0).
    void mask_scores(std::int64_t h, std::int64_t query, std::int64_t key, std::int64_t count, int along,
                     T* scores) const {
        if (mask_ == nullptr) {
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t i = 0; i < count; ++i) {
                scores[i] *= factor_;
            }
            return;
        }
        const std::int64_t* strides = &mask_->Strides().end()[-2];
        const std::int64_t step = strides[along];
        const std::int64_t start = query * strides[0] + key * strides[1];
        if (mask_->isBool()) {
            // As bytes: storage may hold some that are no valid bool.
            const std::uint8_t* mask = Heads<std::uint8_t>(mask_).head(h) + start;
            for (std::int64_t i = 0; i < count; ++i) {
                scores[i] = mask[i * step] != 0 ? factor_ * scores[i] : -std::numeric_limits<T>::infinity();
            }
        } else {
            const T* mask = Heads<T>(mask_).head(h) + start;
            for (std::int64_t i = 0; i < count; ++i) {
                scores[i] = factor_ * scores[i] + mask[i * step];
            }
        }
    }

    void forward_tile(std::int64_t h, std::int64_t first, std::int64_t rows, T* scores, T* out, std::int64_t out_row,
                      T* log_sums) const {
        constexpr T lowest = -std::numeric_limits<T>::infinity();
        T highest[query_tile];
        T sum[query_tile];
        std::fill_n(highest, rows, lowest);
        std::fill_n(sum, rows, T(0));
        const T* query = query_.head(h) + first * query_.row;
        const std::int64_t keys = keys_for(first + rows);
        if (keys == 0) {
            for (std::int64_t i = 0; i < rows; ++i) {
                std::fill_n(out + i * out_row, e_, T(0));
            }
        }
        for (std::int64_t key = 0; key < keys; key += key_tile) {
            const std::int64_t count = std::min(key_tile, keys - key);
            multiply<T>(rows, count, d_, {query, query_.row}, {key_.head(h) + key * key_.row, key_.row, true}, scores,
                        key_tile, false);
            for (std::int64_t i = 0; i < rows; ++i) {
                T* x = scores + i * key_tile;
                const std::int64_t visible = seen(first + i, key, count);
                // What is only scaled is scaled on the way.
                const bool scaled = mask_ != nullptr || factor_ < T(0);
                if (scaled) {
                    mask_scores(h, first + i, key, visible, 1, x);
                }
                const T factor = scaled ? T(1) : factor_;
                std::fill(x + visible, x + count, T(0));
                const T top = std::max(highest[i], row::highest(x, visible) * factor);
                if (!(top > lowest)) {
                    // Nothing may be attended to so far, or NaN is all there is.
                    std::replace(x, x + visible, lowest, T(0));
                    continue;
                }
                const T all = row::weigh(x, visible, factor, top);
                const T shrink = elementary::power_or_nothing(highest[i] - top);
                if (key > 0 && highest[i] < top) {
                    for (std::int64_t c = 0; c < e_; ++c) {
                        out[i * out_row + c] *= shrink;
                    }
                }
                sum[i] = sum[i] * shrink + all;
                highest[i] = top;
            }
            multiply<T>(rows, e_, count, {scores, key_tile}, {value_.head(h) + key * value_.row, value_.row}, out,
                        out_row, key > 0);
        }
        for (std::int64_t i = 0; i < rows; ++i) {
            if (highest[i] > lowest) {
                const T share = T(1) / sum[i];
                for (std::int64_t c = 0; c < e_; ++c) {
                    out[i * out_row + c] *= share;
                }
            }
            // What sees nothing has no share in anything.
            log_sums[i] = highest[i] > lowest ? highest[i] + elementary::log(sum[i]) : -lowest;
        }
    }

    // With P = exp(S - log sums): dV = P' dO, dS = P (dO V' - rowsum(dO O)), dQ = scale dS K, dK = scale dS' Q. Tiles
    // stand turned, keys down and queries across.
    void backward_head(std::int64_t h, const Heads<T>& output, const Heads<T>& gradient, const T* log_sums,
                       const Gradients& to, T* memory) const {
        T* powers = memory;
        T* slopes = powers + query_tile * key_tile_back;
        T* inner = slopes + query_tile * key_tile_back;
        const T* query = query_.head(h);
        const T* from = gradient.head(h);
        for (std::int64_t i = 0; i < n_; ++i) {
            inner[i] = row::dot(from + i * gradient.row, output.head(h) + i * output.row, e_);
        }
        for (std::int64_t first_key = 0; first_key < m_; first_key += key_tile_back) {
            const std::int64_t keys = std::min(key_tile_back, m_ - first_key);
            const T* key = key_.head(h) + first_key * key_.row;
            const T* value = value_.head(h) + first_key * value_.row;
            const std::int64_t start = causal_ ? std::min(first_key, n_) / query_tile * query_tile : 0;
            if (start >= n_) {
                clear(to.key, h, first_key, keys, d_);
                clear(to.value, h, first_key, keys, e_);
                continue;
            }
            for (std::int64_t first = start; first < n_; first += query_tile) {
                const std::int64_t rows = std::min(query_tile, n_ - first);
                const T* some_from = from + first * gradient.row;
                const bool add = first > start;
                multiply<T>(keys, rows, d_, {key, key_.row}, {query + first * query_.row, query_.row, true}, powers,
                            query_tile, false);
                for (std::int64_t j = 0; j < keys; ++j) {
                    T* p = powers + j * query_tile;
                    const std::int64_t hidden = causal_ ? std::clamp<std::int64_t>(first_key + j - first, 0, rows) : 0;
                    mask_scores(h, first, first_key + j, rows, 0, p);
                    ORNIK_INDEPENDENT_ITERATIONS
                    for (std::int64_t i = 0; i < rows; ++i) {
                        p[i] = elementary::exp(p[i] - log_sums[first + i]);
                    }
                    std::fill_n(p, hidden, T(0));
                }
                if (to.value) {
                    multiply<T>(keys, e_, rows, {powers, query_tile}, {some_from, gradient.row},
                                to.value.head(h) + first_key * to.value.row, to.value.row, add);
                }
                if (!to.query && !to.key) {
                    continue;
                }
                multiply<T>(keys, rows, e_, {value, value_.row}, {some_from, gradient.row, true}, slopes, query_tile,
                            false);
                for (std::int64_t j = 0; j < keys; ++j) {
                    const T* p = powers + j * query_tile;
                    T* s = slopes + j * query_tile;
                    ORNIK_INDEPENDENT_ITERATIONS
                    for (std::int64_t i = 0; i < rows; ++i) {
                        s[i] = factor_ * p[i] * (s[i] - inner[first + i]);
                    }
                }
                if (to.key) {
                    multiply<T>(keys, d_, rows, {slopes, query_tile}, {query + first * query_.row, query_.row},
                                to.key.head(h) + first_key * to.key.row, to.key.row, add);
                }
                if (to.query) {
                    multiply<T>(rows, d_, keys, {slopes, query_tile, true}, {key, key_.row},
                                to.query.head(h) + first * to.query.row, to.query.row, first_key > 0);
                }
            }
        }
        if (m_ == 0) {
            clear(to.query, h, 0, n_, d_);
        }
    }

    static void clear(const Heads<T>& to, std::int64_t h, std::int64_t first, std::int64_t rows, std::int64_t cols) {
        for (std::int64_t i = first; to && i < first + rows; ++i) {
            std::fill_n(to.head(h) + i * to.row, cols, T(0));
        }
    }

    Heads<T> query_;
    Heads<T> key_;
    Heads<T> value_;
    const Tensor* mask_;
    T factor_;
    bool causal_;
    std::int64_t n_;
    std::int64_t m_;
    std::int64_t d_;
    std::int64_t e_;
    std::int64_t heads_;
};

}  // namespace

void attention_rows(const AttentionOperands& from, Tensor* out, Tensor* log_sums) {
    dispatch(FloatTypes{}, from.query->Dtype(), [&]<typename T>() { Attention<T>(from).forward(out, log_sums); });
}

void attention_rows_grad(const AttentionOperands& from, const AttentionResult& result, const Tensor* gradient,
                         Tensor* query_gradient, Tensor* key_gradient, Tensor* value_gradient) {
    dispatch(FloatTypes{}, from.query->Dtype(), [&]<typename T>() {
        Attention<T>(from).backward(result, gradient, query_gradient, key_gradient, value_gradient);
    });
}

}  // namespace ornik::device::cpu
