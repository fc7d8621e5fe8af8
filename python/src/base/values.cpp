#include "base/values.h"

#include "base/errors.h"
#include "common/text/text.h"
#include "common/values/number_type.h"
#include "layout/value_type.h"

#include <cmath>
#include <limits>

namespace kp::python {

namespace {

std::string class_name(PyObject *object)
{
    const Ref name(
        PyObject_GetAttrString(reinterpret_cast<PyObject *>(Py_TYPE(object)), "__name__"));
    const Ref bytes(name ? PyUnicode_AsUTF8String(name.get()) : nullptr);
    if (bytes)
        return PyBytes_AsString(bytes.get());
    PyErr_Clear();
    return "object";
}

bool refuse_kind(PyObject *object, uint32_t type, const char *wanted)
{
    raise(Kind::TypeMismatchError,
          std::string(kp_type2str(type)) + " takes " + wanted + ", not " + class_name(object));
    return false;
}

template <typename T> bool refuse_range(uint32_t type)
{
    PyErr_Clear();
    raise(Kind::RangeError, std::string("out of range for ") + kp_type2str(type) +
                                ", which holds " +
                                std::to_string(std::numeric_limits<T>::lowest()) + " to " +
                                std::to_string(std::numeric_limits<T>::max()));
    return false;
}

template <typename T> void put(T number, ValueBytes &value)
{
    std::memcpy(value.bytes.data(), &number, sizeof(number));
    value.size = sizeof(number);
}

// A float is taken for an integer when it is a whole number.
Ref whole_number(PyObject *object, uint32_t type)
{
    if (!PyFloat_Check(object)) {
        Ref number(PyNumber_Index(object));
        if (!number) {
            PyErr_Clear();
            (void)refuse_kind(object, type, "an int");
        }
        return number;
    }
    const double number = PyFloat_AsDouble(object);
    if (std::isinf(number)) {
        raise(Kind::RangeError, std::string("infinity is no ") + kp_type2str(type));
        return Ref();
    }
    if (std::isnan(number) || number != std::trunc(number)) {
        raise(Kind::InvalidValueError, std::string(std::isnan(number) ? "NaN" : "a fraction") +
                                           " is no " + kp_type2str(type));
        return Ref();
    }
    return Ref(PyLong_FromDouble(number));
}

template <typename T> bool put_integer(PyObject *object, uint32_t type, ValueBytes &value)
{
    const Ref number = PyLong_Check(object) ? Ref(counted(object)) : whole_number(object, type);
    if (!number)
        return false;
    if constexpr (std::is_same_v<T, uint64_t>) {
        const unsigned long long wide = PyLong_AsUnsignedLongLong(number.get());
        if (PyErr_Occurred())
            return refuse_range<T>(type);
        put(static_cast<T>(wide), value);
    } else {
        int overflow = 0;
        const long long wide = PyLong_AsLongLongAndOverflow(number.get(), &overflow);
        if (overflow != 0 || wide < static_cast<long long>(std::numeric_limits<T>::lowest()) ||
            wide > static_cast<long long>(std::numeric_limits<T>::max()))
            return refuse_range<T>(type);
        put(static_cast<T>(wide), value);
    }
    return true;
}

bool as_double(PyObject *object, uint32_t type, double &number)
{
    number = PyFloat_AsDouble(object);
    if (number != -1.0 || !PyErr_Occurred())
        return true;
    const bool is_too_large = PyErr_ExceptionMatches(PyExc_OverflowError);
    PyErr_Clear();
    if (!is_too_large)
        return refuse_kind(object, type, "a float or an int");
    raise(Kind::RangeError, std::string("out of range for ") + kp_type2str(type) +
                                ", which holds -1.8e308 to 1.8e308");
    return false;
}

bool put_double(PyObject *object, ValueBytes &value)
{
    double number = 0;
    if (!as_double(object, KP_TYPE_DOUBLE, number))
        return false;
    put(number, value);
    return true;
}

bool put_float(PyObject *object, ValueBytes &value)
{
    double number = 0;
    if (!as_double(object, KP_TYPE_FLOAT, number))
        return false;
    const auto narrow = static_cast<float>(number); // rounds to the nearest
    if (std::isinf(narrow) && std::isfinite(number)) {
        raise(Kind::RangeError, "out of range for float, which holds -3.4e38 to 3.4e38");
        return false;
    }
    put(narrow, value);
    return true;
}

// Says whether it is True or False, or one of numpy's.
bool put_boolean(PyObject *object, ValueBytes &value)
{
    if (object != Py_True && object != Py_False && class_name(object) != "bool_" &&
        class_name(object) != "bool")
        return refuse_kind(object, KP_TYPE_BOOLEAN, "a bool");
    put(static_cast<uint8_t>(PyObject_IsTrue(object) == 1), value);
    return true;
}

bool put_bytes(PyObject *object, uint32_t type, uint32_t most, ValueBytes &value)
{
    const Ref view(PyBytes_Check(object) ? counted(object) : PyMemoryView_FromObject(object));
    const Ref bytes(view ? PyObject_Bytes(view.get()) : nullptr);
    if (!bytes) {
        PyErr_Clear();
        return refuse_kind(object, type,
                           type == KP_TYPE_STRING ? "a str" : "bytes or an object like them");
    }
    const Py_ssize_t size = PyBytes_Size(bytes.get());
    if (size < 1 || size > static_cast<Py_ssize_t>(most)) {
        raise(Kind::InvalidValueError, std::string("a ") + kp_type2str(type) + " of " +
                                           std::to_string(size) + " bytes, where 1 to " +
                                           std::to_string(most) + " are declared");
        return false;
    }
    value.size = static_cast<uint32_t>(size);
    std::memcpy(value.bytes.data(), PyBytes_AsString(bytes.get()), value.size);
    return true;
}

bool put_string(PyObject *object, uint32_t most, ValueBytes &value)
{
    if (!PyUnicode_Check(object)) // a string that is not UTF-8 came as bytes and goes back as bytes
        return put_bytes(object, KP_TYPE_STRING, most, value);
    const Ref text(PyUnicode_AsUTF8String(object));
    if (text)
        return put_bytes(text.get(), KP_TYPE_STRING, most, value);
    PyErr_Clear();
    raise(Kind::InvalidValueError, "the str has a surrogate, which UTF-8 does not");
    return false;
}

} // namespace

uint32_t type_code(PyObject *name)
{
    if (PyUnicode_Check(name)) {
        const Ref text(PyUnicode_AsUTF8String(name));
        const uint32_t code = text ? kp_str2type(PyBytes_AsString(text.get())) : UINT32_MAX;
        if (code != UINT32_MAX)
            return code;
        PyErr_Clear();
    }
    std::string text = "a type is one of";
    for (const ValueType &type : kValueTypes)
        text += std::string(type.code == 0 ? " '" : ", '") + type.name + "'";
    text += PyType_Check(name) ? "; a Python type does not say how many bytes a number has" : "";
    raise(Kind::TypeMismatchError, text);
    return UINT32_MAX;
}

PyObject *to_python(uint32_t type, std::string_view bytes)
{
    const auto size = static_cast<Py_ssize_t>(bytes.size());
    switch (type) {
    case KP_TYPE_DOUBLE:
        return PyFloat_FromDouble(tool::from_bytes<double>(bytes));
    case KP_TYPE_BOOLEAN:
        return PyBool_FromLong(tool::from_bytes<uint8_t>(bytes));
    case KP_TYPE_FLOAT:
        return PyFloat_FromDouble(static_cast<double>(tool::from_bytes<float>(bytes)));
    case KP_TYPE_UINT64:
        return PyLong_FromUnsignedLongLong(tool::from_bytes<uint64_t>(bytes));
    case KP_TYPE_STRING:
        if (tool::is_utf8(bytes))
            return PyUnicode_DecodeUTF8(bytes.data(), size, nullptr);
        return PyBytes_FromStringAndSize(bytes.data(), size);
    case KP_TYPE_BYTEARRAY:
    case KP_TYPE_RAW:
        return PyBytes_FromStringAndSize(bytes.data(), size);
    default:
        return tool::with_number(type, [bytes](auto zero) {
            return PyLong_FromLongLong(
                static_cast<long long>(tool::from_bytes<decltype(zero)>(bytes)));
        });
    }
}

bool to_bytes(PyObject *object, uint32_t type, uint32_t most, ValueBytes &value)
{
    switch (type) {
    case KP_TYPE_DOUBLE:
        return put_double(object, value);
    case KP_TYPE_BOOLEAN:
        return put_boolean(object, value);
    case KP_TYPE_FLOAT:
        return put_float(object, value);
    case KP_TYPE_STRING:
        return put_string(object, most, value);
    case KP_TYPE_BYTEARRAY:
    case KP_TYPE_RAW:
        return put_bytes(object, type, most, value);
    default:
        return tool::with_number(type, [&](auto zero) {
            using Number = decltype(zero);
            if constexpr (std::is_integral_v<Number>)
                return put_integer<Number>(object, type, value);
            else
                return false;
        });
    }
}

} // namespace kp::python
