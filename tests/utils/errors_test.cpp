// Messages, locations, the device check and the axis rules.
#include "support/expect_error.h"
#include "utils/error.h"
#include "utils/logging.h"
#include "utils/utils.h"

namespace ornik::test {
namespace {

TEST(Logging, ComposesMessageAndLocation) {
    EXPECT_EQ(error_text([] { ErrorMsg("abc", "", true); }), "abc");
    EXPECT_EQ(error_text([] { ErrorMsg("abc", "X", false); }), "abc (X)");
    EXPECT_EQ(error_text([] { ErrorMsg("abc", "X", true); }), "abc (X)");
    testing::internal::CaptureStdout();
    InfoMsg("m", "");
    InfoMsg("m", "L");
    WarningMsg("w", "L");
    DebugMsg("d", "L");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "m\nm (L)\n");
}

TEST(Errors, JoinPiecesAndNameThePlaceInTheSourceTree) {
    const int line = __LINE__ + 1;
    const Where at = where("ornik::some::function");
    EXPECT_EQ(location_text(at),
              " FILE: tests/utils/errors_test.cpp  LINE: " + std::to_string(line) + "  FUNC: ornik::some::function\n");
    const Dims shape{2, 3};
    expect_error([&] { fail(at, "a ", -3, shape, "and ", Dims{}, std::uint64_t{1} << 63); },
                 "a -3( 2, 3 ) and empty vector\n9223372036854775808", "ornik::some::function",
                 "tests/utils/errors_test.cpp");
}

TEST(Devices, CheckDevAcceptsKnownCodes) {
    for (const std::int64_t device : {0, 1000, 1008, 10000}) {
        EXPECT_NO_THROW(CheckDev(device));
    }
    for (const std::int64_t device : {-1, 5, 999, 1009, 9999, 10001}) {
        expect_error([&] { CheckDev(device); },
                     "Not exist device: " + std::to_string(device) +
                         " , out of range!  set device = 0 for CPU, set device >= 1000 for GPU:0,...,GPU:8 .",
                     "CheckDev", "src/utils/utils.cpp");
    }
}

TEST(Axes, InlineRuleCountsRankZeroAsOne) {
    EXPECT_EQ(maybe_wrap_dim(-1, 0), 0);
    EXPECT_EQ(maybe_wrap_dim(-3, 3), 0);
    EXPECT_EQ(maybe_wrap_dim(2, 3), 2);
    const auto refused = [](int dim, int ndim, const std::string& bounds) {
        expect_error([&] { maybe_wrap_dim(dim, ndim); }, "axis should in range of [" + bounds + "]", "maybe_wrap_dim",
                     "include/utils/utils.h");
    };
    refused(1, 0, "-1,0");
    refused(3, 3, "-3,2");
    refused(-4, 3, "-3,2");
}

TEST(Axes, StrictRuleRefusesRankZero) {
    EXPECT_EQ(maybe_warp_dim(-3, 3), 0);
    EXPECT_EQ(maybe_warp_dim(2, 3), 2);
    const auto refused = [](int dim, int ndim, const std::string& message) {
        expect_error([&] { maybe_warp_dim(dim, ndim); }, message, "ornik::maybe_warp_dim",
                     "src/tensor/tensor_utils.cpp");
    };
    refused(0, 0, "dim_post_expr should more than zero");
    refused(3, 3, "if input negative dim or axis,dim should larger than -3 and smaller than 2");
    refused(-4, 3, "if input negative dim or axis,dim should larger than -3 and smaller than 2");
}

}  // namespace
}  // namespace ornik::test
