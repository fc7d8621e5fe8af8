#include "tag.h"

#include "common/store_files.h"
#include "errors.h"
#include "layout/segment.h"
#include "node.h"
#include "store.h"
#include "tag_reading.h"
#include "values.h"

#include <cerrno>
#include <optional>
#include <sys/mman.h>

namespace kp::python {

namespace {

PyTypeObject *provider_type = nullptr;
PyTypeObject *consumer_type = nullptr;
PyTypeObject *notice_type = nullptr;
PyObject *as_microseconds = nullptr; // zu_kp._objects.as_microseconds
PyObject *nothing = nullptr;         // ()

// The calling convention has stood since 3.7, and in the limited interface's headers since 3.10.
constexpr int kFastCall = 0x0080;
using FastFunction = PyObject *(*)(PyObject *, PyObject *const *, Py_ssize_t, PyObject *);

struct Tag {
    PyObject_HEAD PyObject *node;
    PyObject *topic;
    PyObject *notice;      // of a provider: what write() returns
    kp_tag_t *tag;         // null when closed
    const Segment *glance; // tells whether a write is going on; null where it cannot be mapped
    uint32_t type;         // of a provider
    uint32_t most;
};

// What write() returns: awaited, it sends the notice of what was written.
struct Notice {
    PyObject_HEAD PyObject *node;
};

Tag &of(PyObject *self)
{
    return *reinterpret_cast<Tag *>(self);
}

bool is_usable(const Tag &tag)
{
    if (!is_usable(state_of(tag.node)))
        return false;
    if (tag.tag)
        return true;
    raise(Kind::ClosedError, "the tag is closed");
    return false;
}

// ---- reading

// A read waits only while a write is going on. A glance tells, so that most reads need not let
// other threads run Python, which costs more than the read. It is no less safe from a file that is
// cut short than the library's own mapping of the same file.
bool may_wait(const Tag &tag)
{
    return !tag.glance || load_relaxed(tag.glance->state.writing) == 1;
}

Outcome read_patiently(const Tag &tag, TagValue &value)
{
    return with_tags_locked(state_of(tag.node),
                            [&](kp_t *) { // closed meanwhile, it has no tag any more
                                return tag.tag ? read_tag(tag.tag, value) : Outcome::failed;
                            });
}

PyObject *raise_outcome(const Tag &tag, Outcome outcome)
{
    std::string topic;
    if (!topic_text(tag.topic, topic))
        return nullptr;
    switch (outcome) {
    case Outcome::no_value:
        return raise(Kind::NoValueError, topic + ": no value has been written yet");
    case Outcome::busy:
        return raise(Kind::BusyError,
                     topic + ": a write has begun and does not end (its writer may have died)");
    default:
        return raise(Kind::CorruptError, topic + ": the segment is corrupt");
    }
}

// The value as it is now; false with an exception.
bool read(const Tag &tag, TagValue &value)
{
    if (!is_usable(tag))
        return false;
    const Outcome outcome = may_wait(tag) ? read_patiently(tag, value) : read_tag(tag.tag, value);
    if (outcome == Outcome::value)
        return true;
    (void)raise_outcome(tag, outcome);
    return false;
}

PyObject *get_value(PyObject *self, void *)
{
    TagValue value;
    return read(of(self), value) ? to_python(value.info.type, {value.bytes.data(), value.size})
                                 : nullptr;
}

PyObject *read_method(PyObject *self, PyObject *)
{
    TagValue value;
    if (!read(of(self), value))
        return nullptr;
    return make_reading(of(self).topic, value.info, {value.bytes.data(), value.size});
}

PyObject *numpy(PyObject *self, PyObject *dtype)
{
    TagValue value;
    if (!read(of(self), value))
        return nullptr;
    return make_array({value.bytes.data(), value.size}, dtype);
}

// ---- writing

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

PyObject *write_method(PyObject *self, PyObject *const *arguments, Py_ssize_t count,
                       PyObject *names)
{
    Tag &tag = of(self);
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
    return store(of(self), object, nullptr) && tell(of(self)) ? 0 : -1;
}

PyObject *await_notice(PyObject *self)
{
    NodeState &state = state_of(reinterpret_cast<Notice *>(self)->node);
    if (state.is_marked && (!is_usable(state) || !send_notice(state)))
        return nullptr;
    return PyObject_GetIter(nothing);
}

// ---- making, and what all tags tell

PyObject *get_topic(PyObject *self, void *)
{
    return counted(of(self).topic);
}

PyObject *get_node(PyObject *self, void *)
{
    return counted(of(self).node);
}

PyObject *get_provider_type(PyObject *self, void *)
{
    return PyUnicode_FromString(kp_type2str(of(self).type));
}

PyObject *get_provider_size(PyObject *self, void *)
{
    return PyLong_FromUnsignedLong(kp_get_value_size(of(self).type, of(self).most));
}

PyObject *get_consumer_type(PyObject *self, void *)
{
    if (!is_usable(of(self)))
        return nullptr;
    if (!kp_tag_has_value(of(self).tag))
        Py_RETURN_NONE;
    uint32_t type = 0;
    const char *name = kp_tag_get_value_info(of(self).tag, &type, nullptr, nullptr) == 0
                           ? kp_type2str(type)
                           : nullptr;
    return name ? PyUnicode_FromString(name) : counted(Py_None);
}

PyObject *get_has_value(PyObject *self, void *)
{
    return is_usable(of(self)) ? PyBool_FromLong(kp_tag_has_value(of(self).tag)) : nullptr;
}

void close_tag(Tag &tag)
{
    kp_tag_t *closed = std::exchange(tag.tag, nullptr);
    NodeState &state = state_of(tag.node);
    if (closed && state.handle && state.process == current_process())
        with_tags_locked(state, [closed](kp_t *handle) { return kp_tag_destroy(handle, closed); });
}

PyObject *close_method(PyObject *self, PyObject *)
{
    close_tag(of(self));
    Py_RETURN_NONE;
}

PyObject *enter(PyObject *self, PyObject *)
{
    return is_usable(of(self)) ? counted(self) : nullptr;
}

PyObject *leave(PyObject *self, PyObject *)
{
    return close_method(self, nullptr);
}

int traverse_tag(PyObject *self, visitproc visit, void *arg)
{
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(of(self).node);
    Py_VISIT(of(self).notice);
    return 0;
}

void free_tag(PyObject *self)
{
    PyObject_GC_UnTrack(self);
    Tag &tag = of(self);
    if (tag.node)
        close_tag(tag);
    if (tag.glance)
        (void)munmap(const_cast<Segment *>(tag.glance), kSegmentSize);
    Py_XDECREF(tag.notice);
    Py_XDECREF(tag.topic);
    Py_XDECREF(tag.node);
    free_object(self);
}

int traverse_notice(PyObject *self, visitproc visit, void *arg)
{
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(reinterpret_cast<Notice *>(self)->node);
    return 0;
}

void free_notice(PyObject *self)
{
    PyObject_GC_UnTrack(self);
    Py_XDECREF(reinterpret_cast<Notice *>(self)->node);
    free_object(self);
}

PyObject *make_notice(PyObject *node)
{
    PyObject *self = PyType_GenericAlloc(notice_type, 0);
    if (self)
        reinterpret_cast<Notice *>(self)->node = counted(node);
    return self;
}

const Segment *map_for_glances(const std::string &topic)
{
    tool::TopicOpener opener;
    tool::Problem ignored;
    const UniqueFd fd = opener.open(topic, ignored);
    void *memory =
        fd ? mmap(nullptr, kSegmentSize, PROT_READ, MAP_SHARED, fd.get(), 0) : MAP_FAILED;
    return memory == MAP_FAILED ? nullptr : static_cast<const Segment *>(memory);
}

// A topic as one path; false with an exception for what is none.
bool plain_topic(PyObject *object, std::string &topic)
{
    std::string text;
    if (!topic_text(object, text))
        return false;
    tool::Problem problem;
    const auto name = tool::normal_topic(text, problem);
    if (!name) {
        raise(problem);
        return false;
    }
    topic = *name;
    return true;
}

// Makes the object around the tag that `open` opens; null with an exception.
template <typename Open>
PyObject *make_tag(PyTypeObject *type, PyObject *node, const std::string &topic, const Open &open)
{
    NodeState &state = state_of(node);
    Ref self(PyType_GenericAlloc(type, 0));
    if (!self)
        return nullptr;
    Tag &tag = of(self.get());
    tag.node = counted(node);
    tag.topic = topic_object(topic);
    tag.notice = make_notice(node);
    if (!tag.topic || !tag.notice)
        return nullptr;
    int error = 0;
    tag.tag = with_tags_locked(state, [&](kp_t *handle) {
        errno = 0;
        kp_tag_t *made = open(handle);
        error = errno;
        tag.glance = made ? map_for_glances(topic) : nullptr;
        return made;
    });
    return tag.tag ? self.release() : raise_library("", "cannot open the topic " + topic, error);
}

PyGetSetDef consumer_attributes[] = {
    {"topic", get_topic, nullptr, "The topic (str).", nullptr},
    {"node", get_node, nullptr, "The Node that it belongs to.", nullptr},
    {"value", get_value, nullptr,
     "The latest value: bool, int, float, str or bytes. Raises NoValueError, BusyError.", nullptr},
    {"type", get_consumer_type, nullptr,
     "The name of the type that the provider declared (str), or None before the first value.",
     nullptr},
    {"has_value", get_has_value, nullptr, "True when a value was written (bool).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyGetSetDef provider_attributes[] = {
    {"topic", get_topic, nullptr, "The topic (str).", nullptr},
    {"node", get_node, nullptr, "The Node that it belongs to.", nullptr},
    {"value", get_value, set_value,
     "The latest value. Setting it is write() with no more than the value.", nullptr},
    {"type", get_provider_type, nullptr, "The name of the type (str).", nullptr},
    {"size", get_provider_size, nullptr, "The most bytes that a value has (int).", nullptr},
    {"has_value", get_has_value, nullptr, "True when a value was written (bool).", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

#define KP_TAG_METHODS                                                                             \
    {"read", read_method, METH_NOARGS,                                                             \
     "read($self, /)\n--\n\nThe latest value with its quality and times, all of one write "        \
     "(Reading).\n\nRaises NoValueError before the first write and BusyError when a write does "   \
     "not end.\nWaits for a write in progress up to a millisecond, without the interpreter's "     \
     "lock."},                                                                                     \
        {"numpy", numpy, METH_O,                                                                   \
         "numpy($self, dtype, /)\n--\n\nThe latest value's bytes as a read-only numpy array.\n\n"  \
         "Needs numpy. Raises InvalidValueError when the bytes are no whole number of items."},    \
        {"close", close_method, METH_NOARGS,                                                       \
         "close($self, /)\n--\n\nCloses the tag. The last one of a topic, in any process, "        \
         "removes "                                                                                \
         "the topic."},                                                                            \
        {"__enter__", enter, METH_NOARGS, "The tag itself."},                                      \
        {"__exit__", leave, METH_VARARGS, "Closes the tag."},                                      \
    {                                                                                              \
        nullptr, nullptr, 0, nullptr                                                               \
    }

PyMethodDef consumer_methods[] = {KP_TAG_METHODS};

PyMethodDef provider_methods[] = {
    {"write", reinterpret_cast<PyCFunction>(slot(write_method)), kFastCall | METH_KEYWORDS,
     "write($self, value, quality=1, source_time=None)\n--\n\nStores a value, and tells the "
     "peers.\n\n"
     "The value is stored at once. In a `with` block the notice goes out at once too, but for\n"
     "writes in a batch(); in an `async with` block it goes out when the result is awaited.\n"
     "`quality` is 0 to 255; 255 keeps the stored one. `source_time` is an aware datetime or\n"
     "microseconds since the Unix epoch, by default now.\n\n"
     "Raises RangeError, InvalidValueError or TypeMismatchError for a value that does not fit."},
    KP_TAG_METHODS};

PyType_Slot consumer_slots[] = {
    {Py_tp_doc, const_cast<char *>("A topic as a node reads it. Made by Node.consume().")},
    {Py_tp_dealloc, slot(free_tag)},
    {Py_tp_traverse, slot(traverse_tag)},
    {Py_tp_getset, consumer_attributes},
    {Py_tp_methods, consumer_methods},
    {0, nullptr}};

PyType_Slot provider_slots[] = {
    {Py_tp_doc, const_cast<char *>("A topic as a node writes it. Made by Node.provide().")},
    {Py_tp_dealloc, slot(free_tag)},
    {Py_tp_traverse, slot(traverse_tag)},
    {Py_tp_getset, provider_attributes},
    {Py_tp_methods, provider_methods},
    {0, nullptr}};

PyType_Slot notice_slots[] = {
    {Py_tp_doc, const_cast<char *>("What write() returns. Awaited, it sends the change notice.")},
    {Py_tp_dealloc, slot(free_notice)},
    {Py_tp_traverse, slot(traverse_notice)},
    {Py_am_await, slot(await_notice)},
    {0, nullptr}};

constexpr unsigned kFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC;
PyType_Spec consumer_spec = {"zu_kp.Consumer", sizeof(Tag), 0, kFlags, consumer_slots};
PyType_Spec provider_spec = {"zu_kp.Provider", sizeof(Tag), 0, kFlags, provider_slots};
PyType_Spec notice_spec = {"zu_kp.Notice", sizeof(Notice), 0, kFlags, notice_slots};

} // namespace

PyObject *make_provider(PyObject *node, PyObject *arguments)
{
    PyObject *topic_argument = nullptr;
    PyObject *type_argument = nullptr;
    unsigned int most = 0;
    unsigned int extra = 0;
    std::string topic;
    if (!PyArg_ParseTuple(arguments, "OOII", &topic_argument, &type_argument, &most, &extra) ||
        !is_usable(state_of(node)) || !plain_topic(topic_argument, topic))
        return nullptr;
    const uint32_t type = type_code(type_argument);
    if (type == UINT32_MAX)
        return nullptr;
    if (most < 1 || most > KP_MAX_VALUE_SIZE)
        return raise(Kind::InvalidValueError, "a size is 1 to 4000 bytes");
    PyObject *made = make_tag(provider_type, node, topic, [&](kp_t *handle) {
        return kp_tag_provider_new(handle, topic.c_str(), type, most, extra);
    });
    if (made) {
        of(made).type = type;
        of(made).most = most;
    }
    return made;
}

PyObject *make_consumer(PyObject *node, PyObject *arguments)
{
    PyObject *topic_argument = nullptr;
    std::string topic;
    if (!PyArg_ParseTuple(arguments, "O", &topic_argument) || !is_usable(state_of(node)) ||
        !plain_topic(topic_argument, topic))
        return nullptr;
    return make_tag(consumer_type, node, topic,
                    [&](kp_t *handle) { return kp_tag_consumer_new(handle, topic.c_str()); });
}

bool add_tag_types(PyObject *module)
{
    const Ref objects(PyImport_ImportModule("zu_kp._objects"));
    as_microseconds = objects ? PyObject_GetAttrString(objects.get(), "as_microseconds") : nullptr;
    nothing = as_microseconds ? PyTuple_New(0) : nullptr;
    if (!nothing)
        return false;
    consumer_type = add_type(module, "Consumer", consumer_spec);
    provider_type = consumer_type ? add_type(module, "Provider", provider_spec) : nullptr;
    notice_type = provider_type ? add_type(module, "Notice", notice_spec) : nullptr;
    return notice_type != nullptr;
}

} // namespace kp::python
