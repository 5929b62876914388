#include "tensor/loan.h"

#include <atomic>
#include <mutex>
#include <unordered_map>

namespace ornik {

namespace {

struct Loans {
    std::atomic<std::int64_t> count{0};
    std::mutex lock;
    std::unordered_map<const tensorT::Tensor_storage*, std::int64_t> by_storage;
};

Loans& loans() {
    static auto* const all = new Loans();  // Loans may end after everything static.
    return *all;
}

}  // namespace

Loan::Loan(std::shared_ptr<tensorT::Tensor_storage> storage) : storage_(std::move(storage)) {
    Loans& all = loans();
    const std::lock_guard guard(all.lock);
    ++all.by_storage[storage_.get()];
    ++all.count;
}

Loan::~Loan() {
    storage_->note_write();
    Loans& all = loans();
    const std::lock_guard guard(all.lock);
    const auto place = all.by_storage.find(storage_.get());
    if (--place->second == 0) {
        all.by_storage.erase(place);
    }
    --all.count;
}

bool knows_its_writes(const tensorT::Tensor_storage& storage) {
    if (storage.is_foreign()) {
        return false;
    }
    Loans& all = loans();
    if (all.count.load() == 0) {
        return true;
    }
    const std::lock_guard guard(all.lock);
    return all.by_storage.count(&storage) == 0;
}

}  // namespace ornik
