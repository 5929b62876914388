// same_bits.h: results that do not depend on the team.
#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include "hardware/thread_config.h"
#include "tensors.h"

namespace ornik::test {

/// Runs `results` (a callable that gives a vector of float32 tensors) with teams of 1, 2, 4 and 7 and compares the
/// bits.
template <typename Results>
void expect_same_bits(const Results& results) {
    std::vector<float> first;
    for (const int team : {1, 2, 4, 7}) {
        ConfigSetNumThreads(team);
        std::vector<float> all;
        for (const TensorPtr& result : results()) {
            const std::vector<float> values = values_of<float>(result);
            all.insert(all.end(), values.begin(), values.end());
        }
        first = team == 1 ? all : first;
        ASSERT_EQ(all.size(), first.size());
        EXPECT_EQ(std::memcmp(all.data(), first.data(), all.size() * sizeof(float)), 0) << team;
    }
    ConfigSetNumThreads(4);
}

}  // namespace ornik::test
