// What a Provider or a Consumer is in memory, and those of its attributes and methods that read or
// write values. All of them are called with the interpreter's lock held.
#pragma once

#include "base/object.h"

#include "kp.h"
#include "layout/segment.h"

namespace kp::python {

struct Tag {
    PyObject_HEAD PyObject *node;
    PyObject *topic;
    PyObject *notice;      // what write() of a provider returns
    kp_tag_t *tag;         // null when closed
    const Segment *glance; // tells whether a write is going on; null where it cannot be mapped
    uint32_t type;         // that a provider has declared
    uint32_t most;         // bytes that it has declared
};

inline Tag &tag_of(PyObject *self)
{
    return *reinterpret_cast<Tag *>(self);
}

// False, with an exception, when the tag or its node is closed, or the node another process's.
bool is_usable(const Tag &tag);

// In reading.cpp. Each gives a new reference, or null with an exception.
PyObject *get_value(PyObject *self, void *);
PyObject *read_method(PyObject *self, PyObject *);
PyObject *numpy_method(PyObject *self, PyObject *dtype);

// In writing.cpp.
int set_value(PyObject *self, PyObject *object, void *);
PyObject *write_method(PyObject *self, PyObject *const *arguments, Py_ssize_t count,
                       PyObject *names);
// To be called once, before the first tag is made. False with an exception.
bool prepare_writing();

} // namespace kp::python
