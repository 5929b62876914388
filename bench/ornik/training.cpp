// training.cpp: passes and training steps of the demo's network and of a transformer block: recorded, and by hand.
#include "block.h"
#include "by_hand.h"
#include "fashion_mnist/network.h"
#include "tensors.h"

namespace bench {

namespace {

using ornik::KTensor;

std::vector<Tensor*> raw(const ornik::NamedTensors& tensors) {
    std::vector<Tensor*> result;
    for (const auto& [name, tensor] : tensors) {
        result.push_back(tensor.tensor());
    }
    return result;
}

// A row of a pass and of dropping what it leaves behind, and the largest amount of memory that a pass holds.
void pass_row(
    const std::string& name, const std::function<void()>& pass, const std::function<void()>& drop = [] {}) {
    row(name, [=] {
        pass();
        drop();
    });
    benchmark::RegisterBenchmark((name + "/peak").c_str(),
                                 [=](benchmark::State& state) {
                                     pass();
                                     drop();
                                     const std::uint64_t before = ornik::cpu_memory_used();
                                     ornik::reset_cpu_memory_peak();
                                     for (auto _ : state) {
                                         pass();
                                         drop();
                                     }
                                     state.counters["peak"] = static_cast<double>(ornik::cpu_memory_peak() - before);
                                 })
        ->Iterations(2)
        ->Unit(benchmark::kMicrosecond);
}

void network_rows_of(std::int64_t batch) {
    const auto network = std::make_shared<ornik::Sequential>(convolutional_network(28, 28, 10));
    const KTensor images = KTensor::randn({batch, 1, 28, 28});
    const KTensor labels = KTensor::randint(0, 10, {batch});
    pass_row(
        "pass/fashion_mnist", [=] { cross_entropy((*network)(images), labels).backward(); },
        [=] { network->zero_grad(); });
    pass_row("pass/fashion_mnist/by_hand",
             [=, state = network->state()] { network_by_hand(raw(state), images.tensor(), labels.tensor()); });
    const auto optimizer = std::make_shared<ornik::SGD>(
        network->parameters(), ornik::SgdOptions{.lr = 1e-3, .momentum = 0.9, .nesterov = true});
    row("training_step/fashion_mnist", [=] {
        optimizer->zero_grad();
        cross_entropy((*network)(images), labels).backward();
        optimizer->step();
    });
}

void block_rows() {
    const auto block = std::make_shared<Block>(block_width, block_heads);
    KTensor x = KTensor::randn({block_batch, block_length, block_width}).requires_grad();
    const KTensor seed = KTensor::randn(x.shape());
    pass_row(
        "pass/transformer_block", [=] { (*block)(x).backward(seed); },
        [=]() mutable {
            block->zero_grad();
            x.zero_grad();
        });
    pass_row("pass/transformer_block/by_hand", [=, parameters = block->named_parameters()] {
        block_by_hand(raw(parameters), block_heads, x.tensor(), seed.tensor());
    });
}

}  // namespace

void training_rows() {
    ornik::set_random_seed(1);
    network_rows_of(training_batch);
    block_rows();
}

}  // namespace bench
