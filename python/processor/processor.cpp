// processor.cpp: the module ornik._processor, which is imported first.
//
// It holds nothing that an old processor could not run, and leads to no other library. On a processor without the
// instructions that the package was compiled for, importing it fails with a sentence; the first such instruction would
// end the process.
#include <Python.h>

#include "hardware/missing_instructions.h"

namespace {

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "_processor",
                          "Whether this processor can run the package.",
                          0,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr};

}  // namespace

PyMODINIT_FUNC PyInit__processor() {
    if (const char* const missing = ornik::detail::missing_instructions()) {
        PyErr_Format(PyExc_ImportError,
                     "this build of ornik needs instructions that the processor has not got (%s): install a wheel for "
                     "all machines, or build the package on this one",
                     missing);
        return nullptr;
    }
    return PyModule_Create(&definition);
}
