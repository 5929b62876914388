#include <array>
#include <cmath>
#include <utility>

#include "descriptors/tensoriterator.h"
#include "hardware/cpu/dispatch.h"
#include "hardware/cpu/nn/cpu_normalization.h"
#include "row_sums.h"
#include "row_writer.h"

namespace ornik::device::cpu {

namespace {

template <typename T>
double reciprocal_deviation(T variance, double eps) {
    return 1 / std::sqrt(static_cast<double>(variance) + eps);
}

template <typename T>
RowWriter<T> writer_of(Tensor* out, std::int64_t cols) {
    return {static_cast<T*>(out->getRawData()), cols, out->Size() * out->itemsize() >= streaming_bytes};
}

// Calls row(i, place of row i in `out`) for every row, in parallel.
template <typename T, typename Row>
void for_each_row(Tensor* out, std::int64_t cols, const Row& row) {
    parallel_for(out->Size() / cols, 1, grain_of_items(cols), [&](std::int64_t begin, std::int64_t end) {
        RowWriter<T> writer = writer_of<T>(out, cols);
        for (std::int64_t i = begin; i < end; ++i) {
            row(i, writer.row(i));
            writer.done(i);
        }
    });
}

// The parameter's values, or the given one as often.
template <typename T>
struct Values {
    Values(const Tensor* t, std::int64_t n, T otherwise)
        : filled(t == nullptr ? static_cast<std::size_t>(n) : 0, otherwise),
          data(t == nullptr ? filled.data() : static_cast<const T*>(t->getRawData())) {}

    std::vector<T> filled;
    const T* data;
};

constexpr std::int64_t least_chunks = 8;

// The sums in the tensor's dtype, if there is one.
template <typename T>
void store(const std::vector<double>& sums, Tensor* out) {
    if (out != nullptr) {
        std::transform(sums.begin(), sums.end(), static_cast<T*>(out->getRawData()),
                       [](double sum) { return static_cast<T>(sum); });
    }
}

template <typename T>
class LayerNormGradients {
  public:
    LayerNormGradients(const NormGradient& from, std::int64_t cols, double eps)
        : cols_(cols),
          rows_(from.input->Size() / cols),
          eps_(eps),
          gammas_(from.gamma, cols, T(1)),
          input_(static_cast<const T*>(from.input->getRawData())),
          gradient_(static_cast<const T*>(from.gradient->getRawData())),
          mean_(static_cast<const T*>(from.mean->getRawData())),
          variance_(static_cast<const T*>(from.variance->getRawData())) {}

    std::int64_t rows() const { return rows_; }

    // The input's gradient, of one row.
    void write_row(std::int64_t i, T* y) const {
        const T* x = input_ + i * cols_;
        const T* g = gradient_ + i * cols_;
        const T* gamma = gammas_.data;
        const T center = mean_[i];
        const double deviation = reciprocal_deviation(variance_[i], eps_);
        const auto [sum, product] = row_sums<T>(
            cols_, [=](auto at) { return at(gamma) * at(g); },
            [=](auto at) { return at(gamma) * at(g) * (at(x) - center); });
        const auto count = static_cast<double>(cols_);
        const T rstd = static_cast<T>(deviation);
        const T slope = static_cast<T>(-deviation * deviation * deviation * product / count);
        const T constant = static_cast<T>(-deviation * sum / count);
        ORNIK_INDEPENDENT_ITERATIONS
        for (std::int64_t j = 0; j < cols_; ++j) {
            y[j] = rstd * (gamma[j] * g[j]) + (slope * (x[j] - center) + constant);
        }
    }

    // Terms of the sums over rows that are gamma's and beta's gradients.
    auto gamma_terms() const {
        return [this](std::int64_t i) {
            return [x = input_ + i * cols_, g = gradient_ + i * cols_, center = mean_[i],
                    rstd = static_cast<T>(reciprocal_deviation(variance_[i], eps_))](std::int64_t j) {
                return g[j] * ((x[j] - center) * rstd);
            };
        };
    }
    auto beta_terms() const {
        return [this](std::int64_t i) { return [g = gradient_ + i * cols_](std::int64_t j) { return g[j]; }; };
    }

    // All rows, and the sums for gamma and beta while a few rows are in cache.
    std::array<std::vector<double>, 2> write_all(Tensor* out) const {
        const std::int64_t chunks = column_chunks(rows_);
        std::array<std::vector<double>, 2> partial;
        partial.fill(std::vector<double>(static_cast<std::size_t>(chunks * cols_)));
        parallel_for(chunks, 1, 2, [&](std::int64_t begin, std::int64_t end) {
            RowWriter<T> writer = writer_of<T>(out, cols_);
            std::vector<T> gamma_sums(static_cast<std::size_t>(cols_)), beta_sums(gamma_sums.size());
            for (std::int64_t chunk = begin; chunk < end; ++chunk) {
                std::fill(gamma_sums.begin(), gamma_sums.end(), T(0));
                std::fill(beta_sums.begin(), beta_sums.end(), T(0));
                const std::int64_t last = std::min(rows_, (chunk + 1) * column_chunk);
                for (std::int64_t i = chunk * column_chunk; i < last; i += 4) {
                    const std::int64_t few = std::min(last, i + 4);
                    for (std::int64_t row = i; row < few; ++row) {
                        write_row(row, writer.row(row));
                        writer.done(row);
                    }
                    add_rows(i, few, 0, cols_, gamma_terms(), gamma_sums.data());
                    add_rows(i, few, 0, cols_, beta_terms(), beta_sums.data());
                }
                std::copy(gamma_sums.begin(), gamma_sums.end(), partial[0].begin() + chunk * cols_);
                std::copy(beta_sums.begin(), beta_sums.end(), partial[1].begin() + chunk * cols_);
            }
        });
        return {join_chunks(std::move(partial[0]), cols_), join_chunks(std::move(partial[1]), cols_)};
    }

  private:
    std::int64_t cols_;
    std::int64_t rows_;
    double eps_;
    Values<T> gammas_;
    const T* input_;
    const T* gradient_;
    const T* mean_;
    const T* variance_;
};

}  // namespace

void layer_norm(const Tensor* input, std::int64_t cols, double eps, const Tensor* gamma, const Tensor* beta,
                Tensor* mean, Tensor* variance, Tensor* out) {
    if (is_without_elements(input, {mean, variance})) {
        return;
    }
    dispatch(FloatTypes{}, input->Dtype(), [&]<typename T>() {
        const Values<T> gammas(gamma, cols, T(1));
        const Values<T> betas(beta, cols, T(0));
        for_each_row<T>(out, cols, [&](std::int64_t i, T* y) {
            const T* x = static_cast<const T*>(input->getRawData()) + i * cols;
            const Moments moments = row_moments(x, cols);
            const T center = static_cast<T>(moments.mean);
            const T rstd = static_cast<T>(1 / std::sqrt(moments.variance() + eps));
            const T* scale = gammas.data;
            const T* shift = betas.data;
            ORNIK_INDEPENDENT_ITERATIONS
            for (std::int64_t j = 0; j < cols; ++j) {
                y[j] = (x[j] - center) * rstd * scale[j] + shift[j];
            }
            static_cast<T*>(mean->getRawData())[i] = center;
            static_cast<T*>(variance->getRawData())[i] = static_cast<T>(moments.variance());
        });
    });
}

void layer_norm_grads(const NormGradient& from, std::int64_t cols, double eps, Tensor* input_gradient,
                      Tensor* gamma_gradient, Tensor* beta_gradient) {
    if (is_without_elements(from.input, {gamma_gradient, beta_gradient})) {
        return;
    }
    dispatch(FloatTypes{}, from.input->Dtype(), [&]<typename T>() {
        const LayerNormGradients<T> gradients(from, cols, eps);
        std::array<std::vector<double>, 2> sums;
        // One pass over memory where there are enough chunks of rows for all workers; the same bits.
        if (input_gradient != nullptr && gamma_gradient != nullptr && beta_gradient != nullptr &&
            gradients.rows() >= least_chunks * column_chunk) {
            sums = gradients.write_all(input_gradient);
        } else {
            if (input_gradient != nullptr) {
                for_each_row<T>(input_gradient, cols, [&](std::int64_t i, T* y) { gradients.write_row(i, y); });
            }
            if (gamma_gradient != nullptr) {
                sums[0] = column_sums<T>(gradients.rows(), cols, gradients.gamma_terms());
            }
            if (beta_gradient != nullptr) {
                sums[1] = column_sums<T>(gradients.rows(), cols, gradients.beta_terms());
            }
        }
        store<T>(sums[0], gamma_gradient);
        store<T>(sums[1], beta_gradient);
    });
}

}  // namespace ornik::device::cpu
