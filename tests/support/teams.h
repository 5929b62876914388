// teams.h: results that do not depend on the number of threads.
#pragma once

#include <gtest/gtest.h>

#include "hardware/thread_config.h"
#include "tensors.h"

namespace ornik::test {

/// compute() gives tensors, or one, with the same bytes under all teams.
template <typename Compute>
void expect_same_bits(const Compute& compute, const std::string& name = "",
                      const std::vector<int>& teams = {1, 2, 4, 7}) {
    std::vector<std::string> first;
    for (const int team : teams) {
        ConfigSetNumThreads(team);
        std::vector<TensorPtr> results;
        if constexpr (std::is_pointer_v<decltype(compute())>) {
            results.emplace_back(compute());
        } else {
            results = compute();
        }
        first.resize(results.size());
        for (std::size_t i = 0; i < results.size(); ++i) {
            const std::string bytes = bytes_of(results[i]);
            EXPECT_TRUE(team == teams[0] || bytes == first[i]) << name << ", result " << i << ", team of " << team;
            first[i] = bytes;
        }
    }
    ConfigSetNumThreads(4);
}

}  // namespace ornik::test
