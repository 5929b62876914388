// containers.cpp: modules in a row.
#include "modules/containers.h"

namespace ornik {

void Sequential::append(std::shared_ptr<Module> module) { add_part(std::to_string(parts().size()), std::move(module)); }

KTensor Sequential::forward(const KTensor& x) {
    KTensor result = x;
    for (const auto& [name, part] : parts()) {
        result = part->forward(result);
    }
    return result;
}

}  // namespace ornik
