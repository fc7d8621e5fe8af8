// NodeBase, on which the Node of the package stands: it opens a handle, makes tags and closes both.
#pragma once

#include "base/object.h"

namespace kp::python {

// Adds the type to the module. False with an exception.
bool add_node_type(PyObject *module);

} // namespace kp::python
