// by_hand_test.cpp: recorded passes give the bits of passes written by hand, and hold no more memory.
#include "bench/ornik/by_hand.h"

#include <gtest/gtest.h>

#include <cstring>

#include "bench/ornik/block.h"
#include "examples/fashion_mnist/network.h"

namespace ornik {
namespace {

std::vector<Tensor*> raw(const std::vector<KTensor>& tensors) {
    std::vector<Tensor*> result;
    for (const KTensor& t : tensors) {
        result.push_back(t.tensor());
    }
    return result;
}

std::vector<KTensor> values_of(const NamedTensors& tensors) {
    std::vector<KTensor> result;
    for (const auto& [name, tensor] : tensors) {
        result.push_back(tensor);
    }
    return result;
}

// What the pool gave out beyond `pass`'s beginning, at most.
template <typename Pass>
std::uint64_t peak_of(const Pass& pass) {
    const std::uint64_t before = cpu_memory_used();
    reset_cpu_memory_peak();
    pass();
    return cpu_memory_peak() - before;
}

void expect_same_bits(const KTensor& recorded, const Tensor& by_hand, std::size_t which) {
    ASSERT_TRUE(recorded.defined()) << which;
    ASSERT_EQ(recorded.shape(), by_hand.Shape()) << which;
    ASSERT_TRUE(recorded.is_contiguous() && by_hand.is_contiguous()) << which;
    EXPECT_EQ(std::memcmp(recorded.tensor()->getRawData(), by_hand.getRawData(),
                          static_cast<std::size_t>(by_hand.get_alloc_mem_size())),
              0)
        << "tensor " << which << " has other bits";
}

// `record` gives the result of a recorded pass and leaves gradients in the leaves; both passes run in a fresh state.
template <typename Record, typename ByHand>
void compare(const std::vector<KTensor>& leaves, const Record& record, const ByHand& by_hand) {
    KTensor result;
    bench::HandPass hand;
    const std::uint64_t recorded_peak = peak_of([&] { result = record(); });
    const std::uint64_t hand_peak = peak_of([&] { hand = by_hand(); });
    expect_same_bits(result, *hand.result, leaves.size());
    ASSERT_EQ(hand.gradients.size(), leaves.size());
    for (std::size_t i = 0; i < leaves.size(); ++i) {
        expect_same_bits(leaves[i].grad(), *hand.gradients[i], i);
    }
    EXPECT_LE(static_cast<double>(recorded_peak), 1.02 * static_cast<double>(hand_peak));
}

TEST(ByHand, ConvolutionalNetwork) {
    set_random_seed(3);
    Sequential network = convolutional_network(28, 28, 10);
    Sequential twin = convolutional_network(28, 28, 10);
    twin.load_state(network.state());
    const KTensor images = KTensor::randn({16, 1, 28, 28});
    const KTensor labels = KTensor::randint(0, 10, {16});
    const auto record = [&] {
        const KTensor loss = cross_entropy(network(images), labels);
        loss.backward();
        return loss.detach();
    };
    const std::vector<KTensor> state = values_of(twin.state());
    const auto by_hand = [&] { return bench::network_by_hand(raw(state), images.tensor(), labels.tensor()); };
    compare(network.parameters(), record, by_hand);
    for (const std::size_t running : {10U, 11U, 13U, 14U}) {
        expect_same_bits(network.state()[running].second, *state[running].tensor(), running);
    }
}

TEST(ByHand, TransformerBlock) {
    set_random_seed(4);
    bench::Block block(24, 3);
    KTensor x = KTensor::randn({4, 17, 24}).requires_grad();
    const KTensor seed = KTensor::randn({4, 17, 24});
    const auto record = [&] {
        const KTensor y = block(x);
        y.backward(seed);
        return y.detach();
    };
    std::vector<KTensor> leaves = block.parameters();
    const std::vector<Tensor*> parameters = raw(leaves);
    leaves.push_back(x);
    compare(leaves, record, [&] { return bench::block_by_hand(parameters, 3, x.tensor(), seed.tensor()); });
}

}  // namespace
}  // namespace ornik
