// missing_instructions.h: whether the processor has what the library was compiled for.
//
// For files that are themselves compiled for every processor of the architecture. The build says in
// ORNIK_WANTED_INSTRUCTIONS which ones to look for.
#pragma once

namespace ornik::detail {

/// Null when every instruction is there, else the name of the first set that is missing.
[[maybe_unused]] static const char* missing_instructions() {
#if defined(ORNIK_WANTED_INSTRUCTIONS)
    __builtin_cpu_init();
#define ORNIK_WANTED(name)                \
    if (!__builtin_cpu_supports(#name)) { \
        return #name;                     \
    }
    ORNIK_WANTED_INSTRUCTIONS
#undef ORNIK_WANTED
#endif
    return nullptr;
}

}  // namespace ornik::detail
