// The selection grammars and operations under libFuzzer: -DORNIK_BUILD_FUZZERS=ON, Clang.
#include "selection_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ornik::test::exercise_selection(data, size);
    return 0;
}
