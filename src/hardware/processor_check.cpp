// On a processor without the instructions that the library was compiled for, the first of them would end the process
// without a word. This file is compiled for every processor, and runs before all other code of the library.
#include "hardware/processor_check.h"

#include <cstdio>
#include <cstdlib>

#include "hardware/missing_instructions.h"

namespace ornik::detail {

const bool processor_is_checked = true;

namespace {

// The first number that is left to programs.
[[gnu::constructor(101)]] void check_processor() {
    if (const char* const missing = missing_instructions()) {
        std::fprintf(stderr,
                     "ornik: this build of the library needs instructions that the processor has not got (%s): build "
                     "it on this machine, or for its instruction set.\n",
                     missing);
        std::_Exit(1);
    }
}

}  // namespace

}  // namespace ornik::detail
