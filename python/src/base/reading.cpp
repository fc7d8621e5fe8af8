#include "base/reading.h"

#include "base/values.h"
#include "layout/value_type.h"

#include <array>
#include <cstring>

namespace kp::python {

namespace {

PyTypeObject *reading_type = nullptr;
PyObject *as_datetime = nullptr; // zu_kp._objects.as_datetime
PyObject *as_array = nullptr;    // zu_kp._objects.as_array

struct Reading {
    PyObject_HEAD PyObject *topic;
    PyObject *long_bytes; // a value that has no room in `short_bytes`; else null
    ReadingInfo info;
    uint32_t size;
    std::array<char, kLargestFixedSize> short_bytes;
};

Reading &of(PyObject *self)
{
    return *reinterpret_cast<Reading *>(self);
}

std::string_view bytes_of(const Reading &reading)
{
    return {reading.long_bytes ? PyBytes_AsString(reading.long_bytes) : reading.short_bytes.data(),
            reading.size};
}

void free_reading(PyObject *self)
{
    Py_XDECREF(of(self).topic);
    Py_XDECREF(of(self).long_bytes);
    free_object(self);
}

PyObject *get_topic(PyObject *self, void *)
{
    return counted(of(self).topic);
}

PyObject *get_value(PyObject *self, void *)
{
    return to_python(of(self).info.type, bytes_of(of(self)));
}

PyObject *get_bytes(PyObject *self, void *)
{
    const std::string_view bytes = bytes_of(of(self));
    return PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
}

PyObject *get_type(PyObject *self, void *)
{
    return PyUnicode_FromString(kp_type2str(of(self).info.type));
}

PyObject *get_quality(PyObject *self, void *)
{
    return PyLong_FromLong(of(self).info.quality);
}

PyObject *get_time_us(PyObject *self, void *)
{
    return PyLong_FromUnsignedLongLong(of(self).info.time_us);
}

PyObject *get_source_time_us(PyObject *self, void *)
{
    return PyLong_FromUnsignedLongLong(of(self).info.source_time_us);
}

PyObject *get_time(PyObject *self, void *)
{
    return PyObject_CallFunction(as_datetime, "K", of(self).info.time_us);
}

PyObject *get_source_time(PyObject *self, void *)
{
    return PyObject_CallFunction(as_datetime, "K", of(self).info.source_time_us);
}

PyObject *get_is_text(PyObject *self, void *)
{
    if (of(self).info.type != KP_TYPE_STRING)
        return PyBool_FromLong(0);
    const Ref value(get_value(self, nullptr));
    return value ? PyBool_FromLong(PyUnicode_Check(value.get())) : nullptr;
}

PyObject *numpy(PyObject *self, PyObject *dtype)
{
    return make_array(bytes_of(of(self)), dtype);
}

PyObject *represent(PyObject *self)
{
    const Reading &reading = of(self);
    const Ref value(get_value(self, nullptr));
    if (!value)
        return nullptr;
    return PyUnicode_FromFormat("<zu_kp.Reading %R: %R, %s, quality %d>", reading.topic,
                                value.get(), kp_type2str(reading.info.type),
                                static_cast<int>(reading.info.quality));
}

PyGetSetDef attributes[] = {
    {"topic", get_topic, nullptr, "The topic (str).", nullptr},
    {"value", get_value, nullptr,
     "The value: bool, int, float, str or bytes, as the type says. A string that is not UTF-8\n"
     "comes as bytes; is_text tells.",
     nullptr},
    {"bytes", get_bytes, nullptr, "The value's bytes as they are stored (little-endian).", nullptr},
    {"type", get_type, nullptr, "The name of the type (str), such as 'double'.", nullptr},
    {"quality", get_quality, nullptr,
     "The quality (int, 0 to 255): 1 is good, 0 is not set, others are the application's.",
     nullptr},
    {"time_us", get_time_us, nullptr,
     "When it was written (int): microseconds since the Unix epoch.", nullptr},
    {"source_time_us", get_source_time_us, nullptr,
     "When it was so at its source (int): microseconds since the Unix epoch.", nullptr},
    {"time", get_time, nullptr, "When it was written (aware datetime, UTC).", nullptr},
    {"source_time", get_source_time, nullptr, "When it was so at its source (aware datetime, UTC).",
     nullptr},
    {"is_text", get_is_text, nullptr, "True for a string that is UTF-8 (bool).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyMethodDef methods[] = {
    {"numpy", numpy, METH_O,
     "numpy($self, dtype, /)\n--\n\nThe bytes as a read-only numpy array of `dtype`.\n\n"
     "Needs numpy. Raises InvalidValueError when the bytes are no whole number of items."},
    {nullptr, nullptr, 0, nullptr}};

PyType_Slot slots[] = {
    {Py_tp_doc, const_cast<char *>("A topic's value as it was at one moment, with its quality and "
                                   "times. It does not change.")},
    {Py_tp_dealloc, slot(free_reading)},
    {Py_tp_repr, slot(represent)},
    {Py_tp_getset, attributes},
    {Py_tp_methods, methods},
    {0, nullptr}};

PyType_Spec spec = {"zu_kp.Reading", sizeof(Reading), 0, Py_TPFLAGS_DEFAULT, slots};

} // namespace

bool add_reading_type(PyObject *module)
{
    const Ref objects(PyImport_ImportModule("zu_kp._objects"));
    as_datetime = objects ? PyObject_GetAttrString(objects.get(), "as_datetime") : nullptr;
    as_array = as_datetime ? PyObject_GetAttrString(objects.get(), "as_array") : nullptr;
    reading_type = as_array ? add_type(module, "Reading", spec) : nullptr;
    return reading_type != nullptr;
}

PyObject *make_reading(PyObject *topic, const ReadingInfo &info, std::string_view bytes)
{
    Ref self(PyType_GenericAlloc(reading_type, 0));
    if (!self)
        return nullptr;
    Reading &reading = of(self.get());
    reading.topic = counted(topic);
    reading.info = info;
    reading.size = static_cast<uint32_t>(bytes.size());
    if (bytes.size() <= reading.short_bytes.size()) {
        std::memcpy(reading.short_bytes.data(), bytes.data(), bytes.size());
        return self.release();
    }
    reading.long_bytes =
        PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size()));
    return reading.long_bytes ? self.release() : nullptr;
}

PyObject *make_array(std::string_view bytes, PyObject *dtype)
{
    const Ref object(
        PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
    return object ? PyObject_CallFunctionObjArgs(as_array, object.get(), dtype, nullptr) : nullptr;
}

} // namespace kp::python
