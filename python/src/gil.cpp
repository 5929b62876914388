#include "gil.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <new>
#include <thread>

#include "errors.h"

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

// The thread that ends the interpreter, and how many are on their way to the lock.
std::atomic<bool> ending{false};
std::thread::id ending_thread;
std::atomic<int> asking{0};

template <typename Take>
void take_lock(Take&& take) noexcept {
    ++asking;
    if (ending && std::this_thread::get_id() != ending_thread) {
        --asking;
        for (;;) {
            pause();
        }
    }
    take();
    --asking;
}

// Those that are on their way get the lock before the end begins; a second is more than they need.
PyObject* announce_end(PyObject*, PyObject*) {
    ending_thread = std::this_thread::get_id();
    ending = true;
    PyThreadState* state = PyEval_SaveThread();
    for (int i = 0; i < 1000 && asking != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    PyEval_RestoreThread(state);
    return Py_NewRef(Py_None);
}

PyMethodDef end_function = {"announce_end", announce_end, METH_NOARGS, nullptr};

}  // namespace

Unlocked::~Unlocked() {
    take_lock([&] { PyEval_RestoreThread(state_); });
}

Locked::Locked() noexcept {
    take_lock([&] { state_ = PyGILState_Ensure(); });
}

void watch_for_the_end() {
    namespace nb = nanobind;
    pthread_atfork(nullptr, nullptr, [] { asking = 0; });  // The threads that asked are not in the child.
    const nb::object module = nb::steal(checked(PyImport_ImportModule("atexit")));
    const nb::object function = nb::steal(checked(PyCFunction_New(&end_function, nullptr)));
    nb::steal(checked(PyObject_CallMethod(module.ptr(), "register", "O", function.ptr())));
}

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
