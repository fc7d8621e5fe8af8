// Looking at the store: get() and list(), which join nothing and need permission to read only.
#pragma once

#include "object.h"

#include <string>

namespace kp::python {

// The functions for the module's table.
PyObject *get(PyObject *module, PyObject *topic);
PyObject *list(PyObject *module, PyObject *arguments);

// The bytes of a topic's or a pattern's str; false with an exception.
bool topic_text(PyObject *topic, std::string &text);
// And back: a name that is not UTF-8 survives the way to Python and back.
PyObject *topic_object(const std::string &text);

} // namespace kp::python
