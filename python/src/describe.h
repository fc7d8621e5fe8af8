// describe(): what the dictionary of the device says of a topic.
#pragma once

#include "object.h"

namespace kp::python {

// The function for the module's table.
PyObject *describe(PyObject *module, PyObject *arguments);

} // namespace kp::python
