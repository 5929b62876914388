// module.cpp: the extension module ornik._ornik.
//
// It converts arguments, raises Python's exceptions, and releases Python's lock around long work; everything numeric
// is the library's. What users call is written in Python above it: functions with signatures and texts.
#include "module.h"

#include <cstdlib>

#include "errors.h"
#include "gil.h"
#include "hardware/instruction_set.h"
#include "object.h"
#include "version.h"

NB_MODULE(_ornik, m) {
    using namespace ornik::python;
    m.doc() = "The library behind the package. Programs use the package.";
    nanobind::set_leak_warnings(std::getenv("ORNIK_LEAK_WARNINGS") != nullptr);  // For tests.
    m.attr("version") = ornik::version();
    m.def("instruction_set", [] { return ornik::instruction_set(); });
    m.def("compiler", [] { return __VERSION__; });
    translate_errors();
    watch_for_the_end();
    if (add_tensor_type(m.ptr()) != 0) {
        throw nanobind::python_error();
    }
    add_dtypes(m);
    add_creation(m);
    add_elements(m);
    add_functions(m);
    add_joining(m);
    add_linalg(m);

    add_properties(m);
    add_interchange(m);
    add_autograd(m);
    add_random(m);
    add_files(m);
    add_networks(m);
    add_fused(m);
    add_training(m);
}
