#include "hardware/fork.h"

#if defined(__unix__) || defined(__APPLE__)

#include <pthread.h>

#include <array>
#include <cstddef>
#include <mutex>

namespace ornik {

namespace {

struct Held {
    void (*hold)() = nullptr;
    void (*release)() = nullptr;
};

// Held over a fork like the locks it lists, so that none joins halfway.
std::mutex list_mutex;
std::array<Held, 4> list;

void before_fork() {
    list_mutex.lock();
    for (const Held& held : list) {
        if (held.hold != nullptr) {
            held.hold();
        }
    }
}

void after_fork() {
    for (std::size_t i = list.size(); i-- > 0;) {
        if (list[i].release != nullptr) {
            list[i].release();
        }
    }
    list_mutex.unlock();
}

}  // namespace

void hold_over_fork(ForkLock lock, void (*hold)(), void (*release)()) {
    [[maybe_unused]] static const int registered = pthread_atfork(before_fork, after_fork, after_fork);
    const std::lock_guard<std::mutex> guard(list_mutex);
    list[static_cast<std::size_t>(lock)] = {hold, release};
}

void call_in_forked_children(void (*run)()) { pthread_atfork(nullptr, nullptr, run); }

}  // namespace ornik

#else

namespace ornik {

void hold_over_fork(ForkLock /*lock*/, void (* /*hold*/)(), void (* /*release*/)()) {}

void call_in_forked_children(void (* /*run*/)()) {}

}  // namespace ornik

#endif
