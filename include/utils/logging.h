// logging.h: the diagnostic interface of the library, outside any namespace.
//
// All four functions compose one text from a message and a location: the message alone when the
// location is empty, else "message (location)". See utils/error.h for how locations are written.
#pragma once

#include <string>

#include "../export.h"

/// Throws an ornik::Error, a std::runtime_error, whose what() is the composed text. `flag` is accepted and has no
/// effect. Never returns.
[[noreturn]] ORNIK_API void ErrorMsg(const std::string& message, const std::string& location, bool flag);

/// Writes the composed text and a line break to standard output. Takes no lock.
ORNIK_API void InfoMsg(const std::string& message, const std::string& location);

/// Composes the text and discards it: warnings print nothing in this build.
ORNIK_API void WarningMsg(const std::string& message, const std::string& location);

/// Composes the text and discards it: debug traces print nothing in this build.
ORNIK_API void DebugMsg(const std::string& message, const std::string& location);
