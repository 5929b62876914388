// autograd.cpp: gradients, hooks, and operations written in Python.
//
// Python functions that the library calls take Python's lock for their time; their exceptions go through the library
// and come out where the pass was asked for.
#include "ktensor/autograd.h"

#include <nanobind/stl/string.h>

#include "arguments.h"
#include "errors.h"
#include "gil.h"
#include "ktensor/bindings.h"
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

// The functions below are types of their own: the collector of garbage finds Python's objects in them.
struct PythonHook {
    SharedObject function;

    KTensor operator()(const KTensor& gradient) const {
        const Locked acquired;
        return tensor_or_none(call(function, new_object(gradient)));
    }
};

struct PythonBackward {
    SharedObject function;

    std::vector<KTensor> operator()(const std::vector<KTensor>& kept, const std::vector<KTensor>& gradients) const {
        const Locked acquired;
        return to_tensors(call(function, new_list(kept), new_list(gradients)).ptr(), true);
    }
};

struct PythonSegment {
    SharedObject function;

    std::vector<KTensor> operator()(const std::vector<KTensor>& given) const {
        const Locked acquired;
        return to_tensors(call(function, new_list(given)).ptr(), false);
    }
};

std::int64_t register_hook(nb::handle object, PythonFunction hook) {
    KTensor t = to_tensor(object.ptr());
    const std::int64_t number = t.register_hook(PythonHook{SharedObject(hook.ptr())});
    watch_tensors(object.ptr());
    return number;
}

// forward(operands) gives two sequences: the outputs and what is kept for backward(kept, gradients).
Tensors custom_operation(const std::string& name, const Tensors& operands, PythonFunction forward,
                         PythonFunction backward) {
    watch_tensors();
    const SharedObject forward_function(forward.ptr());
    PythonBackward backward_function{SharedObject(backward.ptr())};
    const Unlocked released;
    return {custom(
        name, operands.list,
        [&](const std::vector<KTensor>& given) {
            const Locked acquired;
            const nb::object result = call(forward_function, new_list(given));
            if (!PyTuple_Check(result.ptr()) || PyTuple_GET_SIZE(result.ptr()) != 2) {
                raise_error(PyExc_TypeError, "a forward function gives outputs and what is kept");
            }
            return CustomResult{to_tensors(PyTuple_GET_ITEM(result.ptr(), 0), false),
                                to_tensors(PyTuple_GET_ITEM(result.ptr(), 1), true)};
        },
        std::move(backward_function))};
}

Tensors checkpointed(PythonFunction segment, const Tensors& operands) {
    watch_tensors();
    PythonSegment function{SharedObject(segment.ptr())};
    const Unlocked released;
    return {checkpoint(std::move(function), operands.list)};
}

class Traversal final : public autograd::FunctionVisitor {
  public:
    Traversal(visitproc visit, void* argument) : visit_(visit), argument_(argument) {}
    int result() const { return result_; }

    void hook(const std::function<KTensor(const KTensor&)>& function) override { show(function.target<PythonHook>()); }
    void backward(const CustomBackward& function) override { show(function.target<PythonBackward>()); }
    void segment(const Segment& function) override { show(function.target<PythonSegment>()); }

  private:
    template <typename Function>
    void show(const Function* held) {
        if (held != nullptr && result_ == 0 && held->function.is_sole_owner()) {
            result_ = visit_(held->function.get(), argument_);
        }
    }

    visitproc visit_;
    void* argument_;
    int result_ = 0;
};

}  // namespace

int traverse_functions(const KTensor& tensor, visitproc visit, void* argument) {
    Traversal traversal(visit, argument);
    autograd::visit_functions(tensor, traversal);
    return traversal.result();
}

void add_autograd(nb::module_& m) {
    m.def("grad_enabled", [] { return grad_enabled(); });
    m.def("set_grad_enabled", set_grad_enabled);
    m.def("is_recomputing", [] { return is_recomputing(); });
    m.def("detach", [](const KTensor& t) { return t.detach(); });
    m.def("retain_grad", [](KTensor t) { t.retain_grad(); });
    m.def("register_hook", register_hook,
          nb::sig("def register_hook(t: ornik.KTensor, hook: collections.abc.Callable[..., object], /) -> int"));
    m.def("remove_hook", [](KTensor t, Whole number) { t.remove_hook(number); });
    m.def("backward", [](const Tensors& outputs, const OptionalTensors& seeds, Flag retain_graph, Flag create_graph) {
        without_lock([&] { backward(outputs.list, seeds.list, retain_graph, create_graph); });
    });
    m.def(
        "grad",
        [](const Tensors& outputs, const Tensors& inputs, const OptionalTensors& seeds, Flag retain_graph,
           Flag create_graph, Flag allow_unused) {
            return Tensors{without_lock([&] {
                return grad(outputs.list, inputs.list, seeds.list, {retain_graph, create_graph, allow_unused});
            })};
        },
        nb::sig(
            "def grad(outputs: list[ornik.KTensor], inputs: list[ornik.KTensor], seeds: list[ornik.KTensor | None], "
            "retain_graph: bool, create_graph: bool, allow_unused: bool, /) -> list[ornik.KTensor | None]"));
    m.def("custom", custom_operation);
    m.def("checkpoint", checkpointed);
    m.def("replace_past", [](KTensor target, const KTensor& y) { autograd::replace_past(target, y); });
}

}  // namespace ornik::python
