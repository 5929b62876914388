#include "utils/logging.h"

#include <iostream>
#include <stdexcept>

namespace {

std::string compose(const std::string& message, const std::string& location) {
    if (location.empty()) {
        return message;
    }
    return message + " (" + location + ")";
}

}  // namespace

void ErrorMsg(const std::string& message, const std::string& location, bool /*flag*/) {
    throw std::runtime_error(compose(message, location));
}

void InfoMsg(const std::string& message, const std::string& location) {
    std::cout << compose(message, location) << "\n";
}

void WarningMsg(const std::string& message, const std::string& location) { compose(message, location); }

void DebugMsg(const std::string& message, const std::string& location) { compose(message, location); }
