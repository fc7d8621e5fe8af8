// The exceptions of the package, and how the library's and the reader's failures become one.
#pragma once

#include "base/object.h"

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

// Loads the classes. False with an exception set.
bool load_errors();

// Gives the class as a borrowed reference.
PyObject *error_class(Kind kind);

// Sets the exception. One that is also an OSError carries `number` as errno. Always returns null.
PyObject *raise(Kind kind, const std::string &text, int number = 0);

// Sets the exception that stands for a problem of the tools' readers. Always returns null.
PyObject *raise(const tool::Problem &problem);

// Sets the exception for a failed call of the library, with the line that it reported. When it
// reported none, `what` says what could not be done. Always returns null.
PyObject *raise_library(const std::string &reported, const std::string &what, int number);

} // namespace kp::python
