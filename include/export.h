// export.h: marks the symbols that leave the shared library.
//
// Everything without ORNIK_API stays hidden inside the library.
#pragma once

#if defined(_WIN32) && !defined(ORNIK_STATIC)
#if defined(ORNIK_BUILDING)
#define ORNIK_API __declspec(dllexport)
#else
#define ORNIK_API __declspec(dllimport)
#endif
#define ORNIK_API_TYPE
#else
#define ORNIK_API __attribute__((visibility("default")))
/// For header-only types that name exported functions and templates.
#define ORNIK_API_TYPE __attribute__((visibility("default")))
#endif
