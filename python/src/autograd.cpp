// autograd.cpp: gradients, hooks, and operations written in Python.
//
// Python functions that the library calls take Python's lock for their time; their exceptions go through the library
// and come out where the pass was asked for.
#include "ktensor/autograd.h"

#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "module.h"

namespace nb = nanobind;

namespace ornik::python {

namespace {

using PythonFunction = nb::typed<nb::callable, nb::object(...)>;

// Recording from now on, not for the life of an object: Python's with statement keeps what was before.
void set_grad_enabled(bool enabled) {
    alignas(GradMode) unsigned char memory[sizeof(GradMode)];
    new (memory) GradMode(enabled);
}

KTensor tensor_or_none(const nb::object& object) { return object.is_none() ? KTensor() : to_tensor(object.ptr()); }

// A call of a Python function by the library.
template <typename... Arguments>
nb::object call(const SharedObject& function, const Arguments&... arguments) {
    return nb::steal(checked(PyObject_CallFunctionObjArgs(function.get(), arguments.ptr()..., nullptr)));
}

nb::object new_object(KTensor tensor) { return nb::steal(checked(wrap(std::move(tensor)))); }
nb::object new_list(const std::vector<KTensor>& tensors) { return nb::steal(checked(list_of(tensors))); }

std::int64_t register_hook(KTensor t, PythonFunction hook) {
    const SharedObject function(hook.ptr());
    return t.register_hook([function](const KTensor& gradient) {
        const nb::gil_scoped_acquire acquired;
        return tensor_or_none(call(function, new_object(gradient)));
    });
}

// forward(operands) gives two sequences: the outputs and what is kept for backward(kept, gradients).
Tensors custom_operation(const std::string& name, const Tensors& operands, PythonFunction forward,
                         PythonFunction backward) {
    const SharedObject forward_function(forward.ptr());
    const SharedObject backward_function(backward.ptr());
    const nb::gil_scoped_release released;
    return {custom(
        name, operands.list,
        [&](const std::vector<KTensor>& given) {
            const nb::gil_scoped_acquire acquired;
            const nb::object result = call(forward_function, new_list(given));
            if (!PyTuple_Check(result.ptr()) || PyTuple_GET_SIZE(result.ptr()) != 2) {
                raise_error(PyExc_TypeError, "a forward function gives outputs and what is kept");
            }
            return CustomResult{to_tensors(PyTuple_GET_ITEM(result.ptr(), 0), false),
                                to_tensors(PyTuple_GET_ITEM(result.ptr(), 1), true)};
        },
        [backward_function](const std::vector<KTensor>& kept, const std::vector<KTensor>& gradients) {
            const nb::gil_scoped_acquire acquired;
            return to_tensors(call(backward_function, new_list(kept), new_list(gradients)).ptr(), true);
        })};
}

Tensors checkpointed(PythonFunction segment, const Tensors& operands) {
    const SharedObject function(segment.ptr());
    const nb::gil_scoped_release released;
    return {checkpoint(
        [function](const std::vector<KTensor>& given) {
            const nb::gil_scoped_acquire acquired;
            return to_tensors(call(function, new_list(given)).ptr(), false);
        },
        operands.list)};
}

}  // namespace

void add_autograd(nb::module_& m) {
    m.def("grad_enabled", [] { return grad_enabled(); });
    m.def("set_grad_enabled", set_grad_enabled);
    m.def("is_recomputing", [] { return is_recomputing(); });
    m.def("detach", [](const KTensor& t) { return t.detach(); });
    m.def("retain_grad", [](KTensor t) { t.retain_grad(); });
    m.def("register_hook", register_hook);
    m.def("remove_hook", [](KTensor t, std::int64_t number) { t.remove_hook(number); });
    m.def("backward", [](const Tensors& outputs, const OptionalTensors& seeds, bool retain_graph, bool create_graph) {
        without_lock([&] { backward(outputs.list, seeds.list, retain_graph, create_graph); });
    });
    m.def(
        "grad",
        [](const Tensors& outputs, const Tensors& inputs, const OptionalTensors& seeds, bool retain_graph,
           bool create_graph, bool allow_unused) {
            return Tensors{without_lock([&] {
                return grad(outputs.list, inputs.list, seeds.list, {retain_graph, create_graph, allow_unused});
            })};
        },
        nb::sig(
            "def grad(outputs: list[ornik.KTensor], inputs: list[ornik.KTensor], seeds: list[ornik.KTensor | None], "
            "retain_graph: bool, create_graph: bool, allow_unused: bool, /) -> list[ornik.KTensor | None]"));
    m.def("custom", custom_operation);
    m.def("checkpoint", checkpointed);
}

}  // namespace ornik::python
