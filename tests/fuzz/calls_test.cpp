// A bounded, deterministic run of the fuzzer of calls.
#include <gtest/gtest.h>

#include <random>

#include "fuzz/calls_target.h"

namespace ornik::test {
namespace {

TEST(CallsFuzz, RandomArguments) {
    testing::internal::CaptureStdout();
    std::mt19937 random(20240711);
    std::vector<std::string> faults;
    for (int run = 0; run < 40000; ++run) {
        std::vector<std::uint8_t> input(26);
        for (std::size_t i = 0; i < input.size(); ++i) {
            input[i] = static_cast<std::uint8_t>(i < 2 || random() % 3 == 0 ? random() : 0);
        }
        const std::string fault = exercise_call(input.data(), input.size());
        if (!fault.empty()) {
            faults.push_back(fault + " (run " + std::to_string(run) + ")");
        }
    }
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(faults, std::vector<std::string>{});
}

}  // namespace
}  // namespace ornik::test
