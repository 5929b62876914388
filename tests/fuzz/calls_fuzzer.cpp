// All public functions under libFuzzer: -DORNIK_BUILD_FUZZERS=ON, Clang.
#include <iostream>

#include "calls_target.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    std::cout.rdbuf(nullptr);  // Printing functions are called, too.
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return ornik::test::exercise_call(data, size).empty() ? 0 : (std::abort(), 0);
}
