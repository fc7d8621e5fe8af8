// Provider and Consumer: tags of a node.
#pragma once

#include "object.h"

namespace kp::python {

bool add_tag_types(PyObject *module);

// Methods of the node: (topic, type, size, extra_info), and (topic,).
PyObject *make_provider(PyObject *node, PyObject *arguments);
PyObject *make_consumer(PyObject *node, PyObject *arguments);

} // namespace kp::python
