#include <gtest/gtest.h>

#include "descriptors/reduce_descriptor.h"

namespace ornik::test {
namespace {

using Axes = std::vector<ReduceAxis>;
using Form = ReduceDescriptor::Form;

TEST(ReduceDescriptor, AxesAreDroppedSortedAndJoined) {
    struct Case {
        const char* name;
        Dims shape, strides;
        std::vector<int> axes;
        ReduceOrder order;
        Dims result;
        Axes kept, reduced;
        Form form;
    };
    const auto any = ReduceOrder::any, fixed = ReduceOrder::fixed;
    // clang-format off
    const Case cases[] = {
        {"all", {4, 5, 6}, {30, 6, 1}, {0, 1, 2}, fixed, {}, {}, {{120, 1, 0}}, Form::rows},
        {"rows", {4, 5, 6}, {30, 6, 1}, {2}, fixed, {4, 5}, {{20, 6, 1}}, {{6, 1, 0}}, Form::rows},
        {"middle", {4, 5, 6}, {30, 6, 1}, {1}, fixed, {4, 6}, {{6, 1, 1}, {4, 30, 6}}, {{5, 6, 0}}, Form::columns},
        {"outer and inner", {8, 4, 16, 16}, {1024, 256, 16, 1}, {0, 2, 3}, fixed, {4}, {{4, 256, 1}}, {{256, 1, 0}, {8, 1024, 0}}, Form::rows},
        {"few kept behind", {9, 3}, {3, 1}, {0}, fixed, {3}, {{3, 1, 1}}, {{9, 3, 0}}, Form::rows},
        {"transposed", {50, 40}, {1, 50}, {1}, fixed, {50}, {{50, 1, 1}}, {{40, 50, 0}}, Form::across},
        {"transposed, in any order", {50, 40}, {1, 50}, {1}, any, {50}, {{50, 1, 1}}, {{40, 50, 0}}, Form::columns},
        {"transposed, columns", {50, 40}, {1, 50}, {0}, fixed, {40}, {{40, 50, 1}}, {{50, 1, 0}}, Form::staged},
        {"transposed, columns in any order", {50, 40}, {1, 50}, {0}, any, {40}, {{40, 50, 1}}, {{50, 1, 0}}, Form::rows},
        {"transposed, all", {50, 40}, {1, 50}, {0, 1}, fixed, {}, {}, {{40, 50, 0}, {50, 1, 0}}, Form::scattered},
        {"transposed, all in any order", {50, 40}, {1, 50}, {0, 1}, any, {}, {}, {{2000, 1, 0}}, Form::rows},
        {"transposed, positions", {50, 40}, {1, 50}, {0, 1}, ReduceOrder::row_major, {}, {}, {{40, 50, 0}, {50, 1, 0}}, Form::rows},
        {"kept axes out of order", {6, 5, 4}, {1, 24, 6}, {1}, fixed, {6, 4}, {{6, 1, 4}, {4, 6, 1}}, {{5, 24, 0}}, Form::columns},
        {"axes of extent 1", {1, 5, 1}, {7, 2, 3}, {0, 2}, fixed, {5}, {{5, 2, 1}}, {}, Form::staged},
        {"expanded", {3, 50}, {0, 0}, {0, 1}, fixed, {}, {}, {{150, 0, 0}}, Form::rows},
        {"reversed", {5}, {-1}, {0}, fixed, {}, {}, {{5, -1, 0}}, Form::rows},
    };
    // clang-format on
    for (const Case& c : cases) {
        const ReduceDescriptor plan = make_reduce_descriptor(c.shape, c.strides, c.axes, false, c.order);
        EXPECT_EQ(plan.result_shape, c.result) << c.name;
        EXPECT_EQ(plan.kept, c.kept) << c.name;
        EXPECT_EQ(plan.reduced, c.reduced) << c.name;
        EXPECT_EQ(plan.form, c.form) << c.name;
    }
    EXPECT_EQ(make_reduce_descriptor({4, 5, 6}, {30, 6, 1}, {1}, true, any).result_shape, (Dims{4, 1, 6}));
}

}  // namespace
}  // namespace ornik::test
