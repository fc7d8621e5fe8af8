#include "base/errors.h"

#include <array>
#include <cerrno>
#include <cstring>

namespace kp::python {

namespace {

struct ErrorClass {
    const char *name;
    int number; // the errno of a class that is also an OSError; 0 for the others
    PyObject *type = nullptr;
};

std::array<ErrorClass, 13> classes{{{"Error", 0},
                                    {"NotFoundError", ENOENT},
                                    {"AccessError", EACCES},
                                    {"NoValueError", ENODATA},
                                    {"BusyError", EAGAIN},
                                    {"CorruptError", EBADMSG},
                                    {"LimitError", ENOSPC},
                                    {"TopicError", 0},
                                    {"InvalidValueError", 0},
                                    {"RangeError", 0},
                                    {"TypeMismatchError", 0},
                                    {"ClosedError", 0},
                                    {"ForkedError", 0}}};

Kind kind_of(int number)
{
    switch (number) {
    case EACCES:
    case EPERM:
    case EROFS:
        return Kind::AccessError;
    case ENOENT:
        return Kind::NotFoundError;
    default:
        return Kind::LimitError;
    }
}

Ref text_object(const std::string &text)
{
    return Ref(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
}

} // namespace

bool load_errors()
{
    const Ref module(PyImport_ImportModule("zu_kp._errors"));
    if (!module)
        return false;
    for (ErrorClass &entry : classes) {
        entry.type = PyObject_GetAttrString(module.get(), entry.name);
        if (!entry.type)
            return false;
    }
    return true;
}

PyObject *error_class(Kind kind)
{
    return classes[static_cast<std::size_t>(kind)].type;
}

PyObject *raise(Kind kind, const std::string &text, int number)
{
    const ErrorClass &entry = classes[static_cast<std::size_t>(kind)];
    const Ref message = text_object(text);
    if (!message)
        return nullptr;
    const int code = number != 0 ? number : entry.number;
    const Ref value(entry.number != 0 ? PyObject_CallFunction(entry.type, "iO", code, message.get())
                                      : PyObject_CallFunction(entry.type, "O", message.get()));
    if (value)
        PyErr_SetObject(entry.type, value.get());
    return nullptr;
}

PyObject *raise(const tool::Problem &problem)
{
    switch (problem.kind) {
    case tool::kNothing:
        return raise(Kind::NotFoundError, problem.text);
    case tool::kPermission:
        return raise(Kind::AccessError, problem.text);
    case tool::kInvalid:
        return raise(Kind::CorruptError, problem.text);
    case tool::kUsage:
        return raise(Kind::TopicError, problem.text);
    default:
        return raise(Kind::LimitError, problem.text);
    }
}

PyObject *raise_library(const std::string &reported, const std::string &what, int number)
{
    std::string text = reported.empty() ? what : what + ": " + reported;
    if (number == 0)
        return raise(Kind::Error, text);
    if (reported.empty())
        text += std::string(": ") + std::strerror(number);
    return raise(kind_of(number), text, number);
}

} // namespace kp::python
