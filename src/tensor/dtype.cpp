#include "tensor/dtype.h"

namespace ornik {

std::string dtype_name(std::int64_t code) {
    if (!is_valid_dtype(code)) {
        return "unknown";
    }
    return "numpy." + std::string(detail::dtype_table[static_cast<std::size_t>(code)].name);
}

}  // namespace ornik
