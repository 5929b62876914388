// A bounded, deterministic run of the selection fuzzer, and inputs that are too long for a corpus.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "fuzz/selection_target.h"

namespace ornik::test {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::vector<Bytes> corpus() {
    std::vector<Bytes> seeds;
    for (const auto& entry : std::filesystem::directory_iterator(ORNIK_FUZZ_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return seeds;
}

TEST(SelectionFuzz, MutatedCorpus) {
    std::vector<Bytes> inputs = corpus();
    ASSERT_GE(inputs.size(), 8U);
    const std::string alphabet = "0123456789,,:::--+ \n\tx";
    std::mt19937 engine(20240607);
    const auto below = [&engine](std::size_t n) { return engine() % n; };
    for (int run = 0; run < 6000; ++run) {
        Bytes input = inputs[below(inputs.size())];
        for (std::size_t edits = below(4); edits-- > 0 && !input.empty();) {
            const auto at = static_cast<std::ptrdiff_t>(below(input.size()));
            const auto byte = static_cast<std::uint8_t>(
                below(10) == 0 ? below(256) : static_cast<std::uint8_t>(alphabet[below(alphabet.size())]));
            switch (below(3)) {
                case 0:
                    input[static_cast<std::size_t>(at)] = byte;
                    break;
                case 1:
                    input.insert(input.begin() + at, byte);
                    break;
                default:
                    input.erase(input.begin() + at);
            }
        }
        exercise_selection(input.data(), input.size());
    }
}

TEST(SelectionFuzz, LongInputs) {
    const std::unique_ptr<Tensor> t(Tensor::arange(0, 1000, 1, 0, dtype::int64));
    const auto select = [&](const std::string& item) { return accepted([&] { return t->select_ndim({item}); }); };
    std::string list = "7";
    for (int i = 1; i < 1'000'000; ++i) {
        list += "," + std::to_string(i % 1000);
    }
    const std::unique_ptr<Tensor> million = select(list);
    ASSERT_TRUE(million);
    EXPECT_EQ(million->Size(), 1'000'000);
    const std::unique_ptr<Tensor> gradient(t->select_ndim_grad(million.get(), {list}));
    EXPECT_EQ(static_cast<std::int64_t*>(gradient->getRawData())[5], 5 * 1000);
    t->set_select_ndim(million.get(), {list});
    const std::string items[] = {std::string(500, ':'),
                                 std::string(100'000, ' '),
                                 std::string(100'000, '9'),
                                 std::string(100'000, '-'),
                                 list + ",x",
                                 "0:2147483647",
                                 "-2147483648:2147483647",
                                 "2147483647:-2147483648:-1",
                                 "-2147483648:5:-2147483648"};
    for (const std::string& item : items) {
        EXPECT_FALSE(select(item)) << item.substr(0, 30);
    }
}

}  // namespace
}  // namespace ornik::test
