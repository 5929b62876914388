// What the machine can do: copy bandwidth, multiply-add peak, and the matrix library used directly.
#include <omp.h>

#include <Eigen/Core>
#include <cstring>
#include <memory>
#include <vector>

#include "rows.h"

namespace {

// A copy by as many threads as there are processors. Named as the row it limits.
void bandwidth_row() {
    const auto source = std::make_shared<std::vector<float>>(bench::large, 1.0F);
    const auto target = std::make_shared<std::vector<float>>(bench::large, 2.0F);
    bench::row(
        "copy/existing",
        [=] {
#pragma omp parallel
            {
                const std::int64_t threads = omp_get_num_threads();
                const std::int64_t id = omp_get_thread_num();
                const std::int64_t begin = bench::large * id / threads;
                const std::int64_t end = bench::large * (id + 1) / threads;
                std::memcpy(target->data() + begin, source->data() + begin, static_cast<std::size_t>(end - begin) * 4);
            }
        },
        8 * bench::large);
}

#ifdef __AVX512F__
constexpr int width = 16;
#else
constexpr int width = 8;
#endif
constexpr int chains = 12;

// Independent multiply-adds in registers: twelve chains hide the latency of two units. No sum goes towards zero, where
// some processors are slow.
float multiply_adds(std::int64_t rounds) {
    typedef float Vector __attribute__((vector_size(width * sizeof(float))));
    Vector sums[chains];
    Vector x;
    Vector y;
    for (int lane = 0; lane < width; ++lane) {
        x[lane] = 0.999F;
        y[lane] = 1e-3F * static_cast<float>(lane + 1);
    }
    for (Vector& sum : sums) {
        sum = x;
    }
    for (std::int64_t i = 0; i < rounds; ++i) {
#pragma GCC unroll 12
        for (int chain = 0; chain < chains; ++chain) {
            sums[chain] = sums[chain] * x + y;
        }
    }
    float total = 0;
    for (const Vector& sum : sums) {
        total += sum[0];
    }
    return total;
}

void multiply_add_row() {
    constexpr std::int64_t rounds = 1'000'000;
    bench::row(
        "peak/multiply_add",
        [] {
#pragma omp parallel
            benchmark::DoNotOptimize(multiply_adds(rounds));
        },
        0, rounds * chains * width * 2 * omp_get_max_threads());
}

void product_rows() {
    for (const std::int64_t n : bench::product_sizes) {
        const auto a = std::make_shared<Eigen::MatrixXf>(Eigen::MatrixXf::Ones(n, n));
        const auto b = std::make_shared<Eigen::MatrixXf>(Eigen::MatrixXf::Ones(n, n));
        const auto c = std::make_shared<Eigen::MatrixXf>(n, n);
        bench::row(
            "dot/" + std::to_string(n), [=] { c->noalias() = *a * *b; }, 0, 2 * n * n * n);
    }
}

}  // namespace

int main(int argc, char** argv) {
    bandwidth_row();
    multiply_add_row();
    product_rows();
    return bench::run(argc, argv);
}
