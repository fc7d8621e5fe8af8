// What writes the value of a tag.
#include "tag/tag_object.h"

#include "base/errors.h"
#include "base/node_state.h"
#include "base/values.h"

#include <optional>

namespace kp::python {

namespace {

PyObject *as_microseconds = nullptr; // zu_kp._objects.as_microseconds

struct Extras {
    uint32_t quality = KP_QUALITY_GOOD;
    std::optional<uint64_t> source_time_us;
};

bool store(Tag &tag, PyObject *object, const Extras *extras)
{
    ValueBytes value;
    if (!is_usable(tag) || !to_bytes(object, tag.type, tag.most, value))
        return false;
    NodeState &state = state_of(tag.node);
    const auto turn = turn_to_write(state);
    if (!is_usable(tag)) // closed while this thread waited, or by the object's own conversion
        return false;
    const int32_t written =
        extras ? kp_tag_write_with_source_params(
                     state.handle, tag.tag, value.bytes.data(), value.size, extras->quality,
                     extras->source_time_us.value_or(kp_get_timestamp_us()))
               : kp_tag_write(state.handle, tag.tag, value.bytes.data(), value.size);
    if (written >= 0) {
        state.is_marked = true;
        return true;
    }
    raise(Kind::Error, "the value was not written: another provider declared the topic otherwise");
    return false;
}

bool tell(const Tag &tag)
{
    NodeState &state = state_of(tag.node);
    return state.defers_notices || send_notice(state);
}

bool take_quality(PyObject *object, Extras &extras)
{
    const long quality = PyLong_AsLong(object);
    if (quality == -1 && PyErr_Occurred()) {
        PyErr_Clear();
        raise(Kind::TypeMismatchError, "a quality is an int");
        return false;
    }
    if (quality < 0 || quality > 255) {
        raise(Kind::RangeError, "a quality is 0 to 255");
        return false;
    }
    extras.quality = static_cast<uint32_t>(quality);
    return true;
}

bool take_source_time(PyObject *object, Extras &extras)
{
    if (object == Py_None)
        return true;
    const Ref number(PyObject_CallFunctionObjArgs(as_microseconds, object, nullptr));
    if (!number)
        return false;
    extras.source_time_us = PyLong_AsUnsignedLongLong(number.get());
    return !PyErr_Occurred();
}

// Takes write()'s second and third argument, by place or by name.
bool take_extras(PyObject *const *arguments, Py_ssize_t count, PyObject *names, Extras &extras)
{
    if (count > 3) {
        PyErr_SetString(PyExc_TypeError, "write() takes a value, a quality and a source_time");
        return false;
    }
    if ((count > 1 && !take_quality(arguments[1], extras)) ||
        (count > 2 && !take_source_time(arguments[2], extras)))
        return false;
    const Py_ssize_t named = names ? PyTuple_Size(names) : 0;
    for (Py_ssize_t index = 0; index < named; ++index) {
        PyObject *name = PyTuple_GetItem(names, index);
        PyObject *value = arguments[count + index];
        if (PyUnicode_CompareWithASCIIString(name, "quality") == 0 && count < 2) {
            if (!take_quality(value, extras))
                return false;
        } else if (PyUnicode_CompareWithASCIIString(name, "source_time") == 0 && count < 3) {
            if (!take_source_time(value, extras))
                return false;
        } else {
            PyErr_Format(PyExc_TypeError, "write() got an unexpected argument %R", name);
            return false;
        }
    }
    return true;
}

} // namespace

PyObject *write_method(PyObject *self, PyObject *const *arguments, Py_ssize_t count,
                       PyObject *names)
{
    Tag &tag = tag_of(self);
    if (count < 1) {
        PyErr_SetString(PyExc_TypeError, "write() needs a value");
        return nullptr;
    }
    const bool is_plain = count == 1 && !names;
    Extras extras;
    if (!is_plain && !take_extras(arguments, count, names, extras))
        return nullptr;
    if (!store(tag, arguments[0], is_plain ? nullptr : &extras) || !tell(tag))
        return nullptr;
    return counted(tag.notice);
}

int set_value(PyObject *self, PyObject *object, void *)
{
    if (!object) {
        PyErr_SetString(PyExc_AttributeError, "a value cannot be deleted");
        return -1;
    }
    return store(tag_of(self), object, nullptr) && tell(tag_of(self)) ? 0 : -1;
}

bool prepare_writing()
{
    const Ref objects(PyImport_ImportModule("zu_kp._objects"));
    as_microseconds = objects ? PyObject_GetAttrString(objects.get(), "as_microseconds") : nullptr;
    return as_microseconds != nullptr;
}

} // namespace kp::python
