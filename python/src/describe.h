// describe(): what the dictionary of the device says of a topic.
#pragma once

#include "base/object.h"

namespace kp::python {

// Stands in the module's table.
PyObject *describe(PyObject *module, PyObject *arguments);

} // namespace kp::python
