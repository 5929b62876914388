// module.h: the parts of the extension, one file each.
#pragma once

#include <nanobind/nanobind.h>

namespace ornik::python {

void add_dtypes(nanobind::module_& m);
void add_creation(nanobind::module_& m);
void add_elements(nanobind::module_& m);
void add_functions(nanobind::module_& m);
void add_joining(nanobind::module_& m);
void add_linalg(nanobind::module_& m);
void add_properties(nanobind::module_& m);
void add_interchange(nanobind::module_& m);
void add_autograd(nanobind::module_& m);
void add_random(nanobind::module_& m);
void add_files(nanobind::module_& m);
void add_networks(nanobind::module_& m);
void add_fused(nanobind::module_& m);
void add_training(nanobind::module_& m);

}  // namespace ornik::python
