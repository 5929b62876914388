// The steps that turn operands into an iteration plan, and axes into the plan of a reduction.
#include <gtest/gtest.h>

#include <tuple>

#include "descriptors/iteration_plan.h"
#include "descriptors/reduce_descriptor.h"
#include "support/tensors.h"

namespace ornik::test {
namespace {

using Geometry = OffsetCalculator_cpu<std::int64_t>;

TEST(Plan, SignificantAxesAreInnermostFirstAndInBytes) {
    const PlanAxes axes = significant_axes(Geometry({4, 1, 3, 1, 2}, {-7, 99, 0, -99, 2}), 4);
    EXPECT_EQ(axes.sizes, (Dims{2, 3, 4}));
    EXPECT_EQ(axes.strides, (Dims{8, 0, -28}));
    EXPECT_TRUE(significant_axes(Geometry({}, {}), 8).sizes.empty());
    EXPECT_TRUE(significant_axes(Geometry({1, 1}, {5, 5}), 8).sizes.empty());
    EXPECT_EQ(significant_axes(Geometry({2, 0}, {1, 1}), 1).sizes, (Dims{0, 2}));
}

TEST(Plan, OffsetsOfFlatIndices) {
    const Geometry geometry({2, 3, 4}, {100, -10, 1});
    for (const auto& [index, offset] : {std::pair<int, int>{0, 0}, {3, 3}, {4, -10}, {11, -17}, {12, 100}, {23, 83}}) {
        EXPECT_EQ(geometry.offset(index), offset) << index;
    }
    EXPECT_EQ(geometry.offset(24 + 5), -9) << "an operand starts over behind its last element";
    EXPECT_EQ(Geometry({}, {}).offset(17), 0);
    EXPECT_EQ(Geometry(Dims(25, 1), Dims(25, 3)).offset(1), 0);
}

TEST(Plan, AxisOrderFollowsTheSizeOfTheOutputStrides) {
    using Order = std::vector<std::size_t>;
    EXPECT_EQ(axis_order({4, 12, 24}), (Order{0, 1, 2}));
    EXPECT_EQ(axis_order({24, -4, 8}), (Order{1, 2, 0}));
    EXPECT_EQ(axis_order({8, 4, -8, 4}), (Order{1, 3, 0, 2})) << "equal strides keep their order";
    EXPECT_EQ(axis_order({}), Order{});
}

TEST(Plan, JoinsAxesThatEveryOperandWalksLikeOne) {
    struct Case {
        const char* name;
        Dims sizes, a, b, joined_sizes, joined_a, joined_b;
    };
    const Case cases[] = {
        {"contiguous", {8, 3, 2}, {4, 32, 96}, {4, 32, 96}, {48}, {4}, {4}},
        {"row broadcast", {8, 3, 2}, {4, 32, 96}, {4, 0, 0}, {8, 6}, {4, 32}, {4, 0}},
        {"column broadcast", {8, 3, 2}, {4, 32, 96}, {0, 4, 12}, {8, 6}, {4, 32}, {0, 4}},
        {"constant", {8, 3, 2}, {4, 32, 96}, {0, 0, 0}, {48}, {4}, {0}},
        {"reversed", {8, 3}, {-4, -32}, {4, 32}, {24}, {-4}, {4}},
        {"reversed rows", {8, 3}, {4, -32}, {4, 32}, {8, 3}, {4, -32}, {4, 32}},
        {"outer axes only", {8, 3, 2}, {4, 40, 120}, {4, 32, 96}, {8, 6}, {4, 40}, {4, 32}},
        {"one operand hinders", {8, 3, 2}, {4, 32, 96}, {4, 32, 100}, {24, 2}, {4, 96}, {4, 100}},
        {"single axis", {8}, {4}, {0}, {8}, {4}, {0}},
        {"no axes", {}, {}, {}, {}, {}, {}},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.name);
        join_axes(c.sizes, {&c.a, &c.b});
        EXPECT_EQ(std::tie(c.sizes, c.a, c.b), std::tie(c.joined_sizes, c.joined_a, c.joined_b));
    }
}

// Strides in bytes, innermost axis first.
PlanOperand operand(bool is_output, const Dims& strides) {
    PlanOperand result({}, {}, nullptr, 4, is_output);
    result.strides = strides;
    return result;
}

TEST(Plan, TilesAnAxisAlongWhichAnInputIsContiguous) {
    struct Case {
        const char* name;
        Dims sizes, output, a, b;
        std::size_t axis;
    };
    const Case cases[] = {
        {"transposed", {8, 8}, {4, 32}, {32, 4}, {4, 32}, 1},
        {"second input transposed", {9, 8}, {4, 36}, {4, 36}, {32, 4}, 1},
        {"third axis", {8, 9, 10}, {4, 32, 288}, {4, 32, 288}, {360, 40, 4}, 2},
        {"short rows", {7, 100}, {4, 28}, {400, 4}, {4, 28}, 0},
        {"short columns", {100, 7}, {4, 400}, {28, 4}, {4, 400}, 0},
        {"row broadcast", {8, 8}, {4, 32}, {4, 0}, {4, 32}, 0},
        {"column broadcast", {8, 8}, {4, 32}, {0, 4}, {4, 32}, 0},
        {"input reversed along the axis", {8, 8}, {4, 32}, {32, -4}, {4, 32}, 0},
        {"output alone jumps", {8, 8}, {32, 4}, {4, 32}, {4, 32}, 0},
        {"one axis", {64}, {4}, {8}, {4}, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(tiled_axis(c.sizes, {operand(true, c.output), operand(false, c.a), operand(false, c.b)}), c.axis)
            << c.name;
    }
}

TEST(Plan, KnowsOutputsThatWriteAPlaceTwice) {
    struct Case {
        Dims sizes, strides;
        bool once;
    };
    const Case cases[] = {
        {{}, {}, true},
        {{3, 2}, {4, 12}, true},
        {{2, 3}, {12, 4}, true},
        {{3, 2}, {-4, 12}, true},
        {{3, 2}, {4, -12}, true},
        {{3, 2}, {8, 24}, true},
        {{3, 2}, {4, 8}, false},
        {{3, 2}, {4, 0}, false},
        {{3, 2}, {0, 4}, false},
        {{3, 2}, {4, 4}, false},
        {{3, 2}, {2, 12}, false},
        {{2, 2, 2}, {16, 4, 8}, true},
        {{2, 2, 2}, {12, 4, 8}, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(writes_each_place_once(c.sizes, c.strides, 4), c.once)
            << shape_text(c.sizes) << shape_text(c.strides);
    }
}

TEST(Plan, WholePlans) {
    struct Case {
        const char* name;
        Dims out_shape, out_strides, in_shape, in_strides;
        std::int64_t numel;
        Dims sizes;
        bool ragged, serial, tiled;
    };
    const Case cases[] = {
        {"contiguous", {2, 3, 4}, {12, 4, 1}, {2, 3, 4}, {12, 4, 1}, 24, {24}, false, false, false},
        {"size-1 axes", {2, 1, 3}, {3, 9, 1}, {1, 2, 3}, {9, 3, 1}, 6, {6}, false, false, false},
        {"both transposed", {9, 8}, {1, 9}, {9, 8}, {1, 9}, 72, {72}, false, false, false},
        {"transposed input", {9, 8}, {8, 1}, {9, 8}, {1, 9}, 72, {8, 9}, false, false, true},
        {"transposed output", {9, 8}, {1, 9}, {9, 8}, {8, 1}, 72, {9, 8}, false, false, true},
        {"axis brought next", {9, 2, 8}, {16, 8, 1}, {9, 2, 8}, {1, 9, 18}, 144, {8, 9, 2}, false, false, true},
        {"scalars", {}, {}, {1, 1}, {5, 5}, 1, {}, false, false, false},
        {"constant input", {2, 3}, {3, 1}, {6}, {0}, 6, {6}, false, false, false},
        {"different shapes", {2, 3}, {3, 1}, {3, 2}, {2, 1}, 6, {}, true, false, false},
        {"expanded output", {3, 2}, {0, 1}, {3, 2}, {2, 1}, 6, {2, 3}, false, true, false},
        {"expanded output of another shape", {2, 3}, {0, 1}, {3, 2}, {2, 1}, 6, {}, true, true, false},
        {"output of one place", {}, {}, {6}, {1}, 6, {6}, false, true, false},
        {"output of one place, ragged inputs differ", {2}, {1}, {6}, {1}, 6, {}, true, true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        float data = 0;
        const IterationPlan plan = make_plan({PlanOperand(c.out_shape, c.out_strides, &data, 4, true),
                                              PlanOperand(c.in_shape, c.in_strides, &data, 4, false)},
                                             c.numel);
        EXPECT_EQ(plan.numel, c.numel);
        EXPECT_EQ(std::tie(plan.ragged, plan.serial, plan.tiled), std::tie(c.ragged, c.serial, c.tiled));
        if (!c.ragged) {
            EXPECT_EQ(plan.sizes, c.sizes);
        }
    }
}

TEST(ReduceDescriptor, AxesAreDroppedSortedAndJoined) {
    using Axes = std::vector<ReduceAxis>;
    using Form = ReduceDescriptor::Form;
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
