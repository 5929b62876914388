#include "gil.h"

#include <atomic>
#include <new>

namespace ornik::python {

namespace {

struct Left {
    void (*function)(void*);
    void* argument;
    Left* next;
};

std::atomic<Left*> left{nullptr};

int make_pending_calls(void*) {
    make_left_calls();
    return 0;
}

bool is_running() {
#if PY_VERSION_HEX >= 0x030D0000
    return Py_IsInitialized() != 0 && Py_IsFinalizing() == 0;
#else
    return Py_IsInitialized() != 0 && _Py_IsFinalizing() == 0;
#endif
}

}  // namespace

void call_with_lock(void (*function)(void*), void* argument) noexcept {
    if (!is_running()) {
        return;
    }
    if (PyGILState_Check() != 0) {
        function(argument);
        return;
    }
    auto* entry = new (std::nothrow) Left{function, argument, left.load(std::memory_order_relaxed)};
    if (entry == nullptr) {
        return;  // What it owns stays: better than to wait for the lock here.
    }
    while (!left.compare_exchange_weak(entry->next, entry, std::memory_order_release, std::memory_order_relaxed)) {
    }
    Py_AddPendingCall(make_pending_calls, nullptr);  // When its queue is full, a call of ours comes by later.
}

void drop_reference(PyObject* object) noexcept {
    call_with_lock([](void* o) { Py_DECREF(static_cast<PyObject*>(o)); }, object);
}

void make_left_calls() noexcept {
    if (left.load(std::memory_order_relaxed) == nullptr) {
        return;
    }
    PyObject* type = nullptr;
    PyObject* value = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);  // Destructors run here; they do not disturb what is under way.
    Left* entry = left.exchange(nullptr, std::memory_order_acquire);
    while (entry != nullptr) {
        Left* next = entry->next;
        entry->function(entry->argument);
        delete entry;
        entry = next;
    }
    PyErr_Restore(type, value, traceback);
}

}  // namespace ornik::python
