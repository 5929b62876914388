// random.cpp: generators of random numbers, and the number of threads.
#include <nanobind/stl/shared_ptr.h>

#include <cstring>

#include "arguments.h"
#include "errors.h"
#include "hardware/thread_config.h"
#include "module.h"
#include "random/generator.h"

namespace nb = nanobind;
using ornik::generator::Generator;
using ornik::generator::GeneratorScope;
using ornik::generator::GeneratorState;

namespace ornik::python {

namespace {

using State = nb::typed<nb::tuple, nb::any, nb::ellipsis>;

State state_of(const Generator& generator) {
    const GeneratorState state = generator.state();
    return nb::make_tuple(state.seed, state.counter, nb::bytes(state.words.data(), sizeof state.words), state.position,
                          state.has_cached_value, state.cached_value);
}

GeneratorState to_state(const nb::tuple& parts) {
    GeneratorState state;
    nb::bytes words;
    if (parts.size() != 6 || !nb::try_cast(parts[2], words) || words.size() != sizeof state.words ||
        !nb::try_cast(parts[0], state.seed) || !nb::try_cast(parts[1], state.counter) ||
        !nb::try_cast(parts[3], state.position) || !nb::try_cast(parts[4], state.has_cached_value) ||
        !nb::try_cast(parts[5], state.cached_value)) {
        raise_error(PyExc_ValueError, "this is no state of a generator");
    }
    std::memcpy(state.words.data(), words.c_str(), sizeof state.words);
    return state;
}

// What a with statement holds: entered and left on one thread.
class Scope {
  public:
    explicit Scope(std::shared_ptr<Generator> generator) : scope_(std::make_unique<GeneratorScope>(generator)) {}
    void leave() { scope_.reset(); }

  private:
    std::unique_ptr<GeneratorScope> scope_;
};

}  // namespace

void add_random(nb::module_& m) {
    nb::class_<Generator>(m, "Generator")
        .def("get_state", state_of)
        .def(
            "set_state",
            [](Generator& generator, nb::handle state) {
                if (PyTuple_Check(state.ptr()) == 0) {
                    refuse("a state of a generator is wanted", state.ptr());
                }
                generator.set_state(to_state(nb::borrow<nb::tuple>(state)));
            },
            nb::arg("state").none(), nb::sig("def set_state(self, state: tuple[typing.Any, ...], /) -> None"))
        .def("seed", [](const Generator& generator) { return generator.seed(); });
    nb::class_<Scope>(m, "GeneratorScope").def(nb::init<std::shared_ptr<Generator>>()).def("leave", &Scope::leave);
    m.def("new_generator", [](std::uint32_t seed) {
        auto generator = std::make_shared<Generator>(std::uint64_t{1});
        generator->set_seed(seed);
        return generator;
    });
    m.def("default_generator", [] { return generator::default_generator(); });
    m.def("set_seed", [](std::uint32_t seed) { set_random_seed(seed); });
    m.def("get_seed", [] { return get_random_seed(); });
    m.def("set_num_threads", [](Count count) { ConfigSetNumThreads(count); });
    m.def("get_num_threads", [] { return ConfigGetNumThreads(); });
}

}  // namespace ornik::python
