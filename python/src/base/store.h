// Looking at the store: get() and list(), which join nothing and need permission to read only.
#pragma once

#include "base/object.h"

#include <string>

namespace kp::python {

// These stand in the module's table.
PyObject *get(PyObject *module, PyObject *topic);
PyObject *list(PyObject *module, PyObject *arguments);

// Gives the bytes of a topic's or a pattern's str. False with an exception.
bool topic_text(PyObject *topic, std::string &text);
// Gives the topic of a str in its normal spelling. False with an exception when it is none.
bool normal_topic(PyObject *object, std::string &topic);
// Makes a str of a topic's bytes. topic_text() gives the same bytes back, also of a name that is
// not UTF-8.
PyObject *topic_object(const std::string &text);

} // namespace kp::python
