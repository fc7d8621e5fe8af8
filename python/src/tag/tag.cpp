#include "tag/tag.h"

#include "base/errors.h"
#include "base/node_state.h"
#include "base/store.h"
#include "base/values.h"
#include "common/store/store_files.h"
#include "tag/notice.h"
#include "tag/tag_object.h"

#include <cerrno>
#include <sys/mman.h>

namespace kp::python {

namespace {

PyTypeObject *provider_type = nullptr;
PyTypeObject *consumer_type = nullptr;

// The calling convention has stood since 3.7, and in the limited interface's headers since 3.10.
constexpr int kFastCall = 0x0080;

PyObject *get_topic(PyObject *self, void *)
{
    return counted(tag_of(self).topic);
}

PyObject *get_node(PyObject *self, void *)
{
    return counted(tag_of(self).node);
}

PyObject *get_provider_type(PyObject *self, void *)
{
    return PyUnicode_FromString(kp_type2str(tag_of(self).type));
}

PyObject *get_provider_size(PyObject *self, void *)
{
    return PyLong_FromUnsignedLong(kp_get_value_size(tag_of(self).type, tag_of(self).most));
}

PyObject *get_consumer_type(PyObject *self, void *)
{
    if (!is_usable(tag_of(self)))
        return nullptr;
    if (!kp_tag_has_value(tag_of(self).tag))
        Py_RETURN_NONE;
    uint32_t type = 0;
    const char *name = kp_tag_get_value_info(tag_of(self).tag, &type, nullptr, nullptr) == 0
                           ? kp_type2str(type)
                           : nullptr;
    return name ? PyUnicode_FromString(name) : counted(Py_None);
}

PyObject *get_has_value(PyObject *self, void *)
{
    return is_usable(tag_of(self)) ? PyBool_FromLong(kp_tag_has_value(tag_of(self).tag)) : nullptr;
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
    close_tag(tag_of(self));
    Py_RETURN_NONE;
}

PyObject *enter(PyObject *self, PyObject *)
{
    return is_usable(tag_of(self)) ? counted(self) : nullptr;
}

PyObject *leave(PyObject *self, PyObject *)
{
    return close_method(self, nullptr);
}

int traverse_tag(PyObject *self, visitproc visit, void *arg)
{
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(tag_of(self).node);
    Py_VISIT(tag_of(self).notice);
    return 0;
}

void free_tag(PyObject *self)
{
    PyObject_GC_UnTrack(self);
    Tag &tag = tag_of(self);
    if (tag.node)
        close_tag(tag);
    if (tag.glance)
        (void)munmap(const_cast<Segment *>(tag.glance), kSegmentSize);
    Py_XDECREF(tag.notice);
    Py_XDECREF(tag.topic);
    Py_XDECREF(tag.node);
    free_object(self);
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

// Makes the object around the tag that `open` opens. Null with an exception.
template <typename Open>
PyObject *make_tag(PyTypeObject *type, PyObject *node, const std::string &topic, const Open &open)
{
    NodeState &state = state_of(node);
    Ref self(PyType_GenericAlloc(type, 0));
    if (!self)
        return nullptr;
    Tag &tag = tag_of(self.get());
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
        {"numpy", numpy_method, METH_O,                                                            \
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

constexpr unsigned kFlags = Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC;
PyType_Spec consumer_spec = {"zu_kp.Consumer", sizeof(Tag), 0, kFlags, consumer_slots};
PyType_Spec provider_spec = {"zu_kp.Provider", sizeof(Tag), 0, kFlags, provider_slots};

} // namespace

PyObject *make_provider(PyObject *node, PyObject *arguments)
{
    PyObject *topic_argument = nullptr;
    PyObject *type_argument = nullptr;
    unsigned int most = 0;
    unsigned int extra = 0;
    std::string topic;
    if (!PyArg_ParseTuple(arguments, "OOII", &topic_argument, &type_argument, &most, &extra) ||
        !is_usable(state_of(node)) || !normal_topic(topic_argument, topic))
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
        tag_of(made).type = type;
        tag_of(made).most = most;
    }
    return made;
}

PyObject *make_consumer(PyObject *node, PyObject *arguments)
{
    PyObject *topic_argument = nullptr;
    std::string topic;
    if (!PyArg_ParseTuple(arguments, "O", &topic_argument) || !is_usable(state_of(node)) ||
        !normal_topic(topic_argument, topic))
        return nullptr;
    return make_tag(consumer_type, node, topic,
                    [&](kp_t *handle) { return kp_tag_consumer_new(handle, topic.c_str()); });
}

bool add_tag_types(PyObject *module)
{
    if (!prepare_writing() || !add_notice_type(module))
        return false;
    consumer_type = add_type(module, "Consumer", consumer_spec);
    provider_type = consumer_type ? add_type(module, "Provider", provider_spec) : nullptr;
    return provider_type != nullptr;
}

} // namespace kp::python
