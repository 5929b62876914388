// gil.h: Python's lock around work, and Python objects that C++ owns.
#pragma once

#include <Python.h>
#include <nanobind/nanobind.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "ktensor/ktensor.h"

namespace ornik::python {

// The interpreter's end: a thread that asks for the lock then would be ended inside C++ functions, which takes the
// process with it. Such threads sleep until the process is gone.

/// Without Python's lock while it lives.
class Unlocked {
  public:
    Unlocked() noexcept : state_(PyEval_SaveThread()) {}
    ~Unlocked();
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

  private:
    PyThreadState* state_;
};

/// With Python's lock while it lives, on any thread.
class Locked {
  public:
    Locked() noexcept;
    ~Locked() { PyGILState_Release(state_); }
    Locked(const Locked&) = delete;
    Locked& operator=(const Locked&) = delete;

  private:
    PyGILState_STATE state_;
};

/// Has the interpreter's end announced. Once, at the import; throws Python's exceptions.
void watch_for_the_end();

/// Elements from which on other threads get the lock during an operation: releasing it costs about what 32 k additions
/// do.
inline constexpr std::int64_t release_grain = 32768;

/// Calls `work` without Python's lock when `elements` are many. `work` uses no Python object, and tensors by handles
/// of its own: another thread may change what an object holds.
template <typename Work>
auto without_lock(std::int64_t elements, Work&& work) {
    if (elements < release_grain) {
        return work();
    }
    const Unlocked released;
    return work();
}
/// The same for work that is always long.
template <typename Work>
auto without_lock(Work&& work) {
    const Unlocked released;
    return work();
}

/// Calls `function` with Python's lock, now or later. A thread without the lock does not wait for it, since it may hold
/// a lock of the library's that the owner of Python's waits for: it leaves the call to the next one that comes by with
/// the lock. After the interpreter's end nothing is called.
void call_with_lock(void (*function)(void*), void* argument) noexcept;
/// Gives a reference back from any thread, by call_with_lock.
void drop_reference(PyObject* object) noexcept;
/// Makes the calls that others have left. With Python's lock.
void make_left_calls() noexcept;

/// A Python object in C++ data that may be copied and destroyed on any thread.
class SharedObject {
  public:
    /// With Python's lock.
    explicit SharedObject(PyObject* object) : object_(Py_NewRef(object), [](PyObject* o) { drop_reference(o); }) {}
    PyObject* get() const { return object_.get(); }
    bool is_sole_owner() const { return object_.use_count() == 1; }

  private:
    std::shared_ptr<PyObject> object_;
};

}  // namespace ornik::python
