#include "version.h"

// A number as text, after macros in it have been replaced.
#define ORNIK_TEXT_OF(number) #number
#define ORNIK_TEXT(number) ORNIK_TEXT_OF(number)

namespace ornik {

const char* version() {
    return ORNIK_TEXT(ORNIK_VERSION_MAJOR) "." ORNIK_TEXT(ORNIK_VERSION_MINOR) "." ORNIK_TEXT(ORNIK_VERSION_PATCH);
}

}  // namespace ornik
