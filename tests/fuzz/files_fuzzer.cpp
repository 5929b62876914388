// The readers of files under libFuzzer: -DORNIK_BUILD_FUZZERS=ON, Clang. tests/io/files is a corpus to start with.
#include "files_target.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ornik::test::exercise_files(data, size);
    return 0;
}
