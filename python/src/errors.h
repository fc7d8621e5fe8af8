// The exceptions of the package, and how the library's and the reader's failures become one.
#pragma once

#include "object.h"

#include "common/problem.h"

#include <string>

namespace kp::python {

// Each is a class of zu_kp._errors, under the same name.
enum class Kind {
    Error,
    NotFoundError,
    AccessError,
    NoValueError,
    BusyError,
    CorruptError,
    LimitError,
    TopicError,
    InvalidValueError,
    RangeError,
    TypeMismatchError,
    ClosedError,
    ForkedError,
};

// Loads the classes; false with an exception set.
bool load_errors();

// The class, borrowed.
PyObject *error_class(Kind kind);

// Sets the exception; those that are an OSError too carry `number` as errno. Always returns null.
PyObject *raise(Kind kind, const std::string &text, int number = 0);

// The exception that a look's problem stands for.
PyObject *raise(const tool::Problem &problem);

// Sets the exception for a failed call of the library, with the line that it reported. When it
// reported none, `what` says what could not be done. Always returns null.
PyObject *raise_library(const std::string &reported, const std::string &what, int number);

} // namespace kp::python
