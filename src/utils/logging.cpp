#include "utils/logging.h"

#include <iostream>

#include "utils/error.h"

using ornik::detail::composed_text;

void ErrorMsg(const std::string& message, const std::string& location, bool /*flag*/) {
    throw ornik::Error(ornik::ErrorKind::argument, message, location);
}

void InfoMsg(const std::string& message, const std::string& location) {
    std::cout << composed_text(message, location) << "\n";
}

void WarningMsg(const std::string& message, const std::string& location) { composed_text(message, location); }

void DebugMsg(const std::string& message, const std::string& location) { composed_text(message, location); }
