// Provider and Consumer, the tags of a node.
#pragma once

#include "base/object.h"

namespace kp::python {

// Adds the types to the module. False with an exception.
bool add_tag_types(PyObject *module);

// Methods of the node. The arguments are (topic, type, size, extra_info), and (topic,).
PyObject *make_provider(PyObject *node, PyObject *arguments);
PyObject *make_consumer(PyObject *node, PyObject *arguments);

} // namespace kp::python
