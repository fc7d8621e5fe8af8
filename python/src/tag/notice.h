// What write() returns: awaited, it sends the notice of what was written.
#pragma once

#include "base/object.h"

namespace kp::python {

// Adds the type to the module. False with an exception.
bool add_notice_type(PyObject *module);

// Makes a notice of a node, which it keeps alive; null with an exception.
PyObject *make_notice(PyObject *node);

} // namespace kp::python
