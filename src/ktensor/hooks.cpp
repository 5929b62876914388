// hooks.cpp: registering and removing. What belongs to a program, the functions, is made and destroyed outside the
// lock.
#include "ktensor/hooks.h"

#include <algorithm>

#include "ktensor/ktensor.h"

namespace ornik::autograd {

void HookList::add(std::uint32_t output, std::int64_t number, Hook hook) {
    auto held = std::make_shared<const Hook>(std::move(hook));
    const std::scoped_lock guard(lock_);
    entries_.push_back({output, number, std::move(held)});
}

void HookList::remove(std::uint32_t output, std::int64_t number) {
    std::shared_ptr<const Hook> removed;
    const std::scoped_lock guard(lock_);
    const auto place = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
        return entry.output == output && entry.number == number;
    });
    if (place != entries_.end()) {
        removed = std::move(place->hook);
        entries_.erase(place);
    }
}

std::vector<HookList::Entry> HookList::entries() const {
    const std::scoped_lock guard(lock_);
    return entries_;
}

}  // namespace ornik::autograd
