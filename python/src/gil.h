// gil.h: Python's lock around work, and Python objects that C++ owns.
#pragma once

#include <Python.h>
#include <nanobind/nanobind.h>

#include <cstdint>
#include <memory>
#include <utility>

#include "ktensor/ktensor.h"

namespace ornik::python {

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
    const nanobind::gil_scoped_release released;
    return work();
}
/// The same for work that is always long.
template <typename Work>
auto without_lock(Work&& work) {
    const nanobind::gil_scoped_release released;
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

  private:
    std::shared_ptr<PyObject> object_;
};

}  // namespace ornik::python
