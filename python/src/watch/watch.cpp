#include "watch/watch.h"

#include "base/errors.h"
#include "base/node_state.h"
#include "base/reading.h"
#include "base/store.h"
#include "base/tag_reading.h"
#include "common/clock.h"
#include "common/names/selection.h"
#include "watch/dispatch.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <poll.h>

namespace kp::python {

namespace {

constexpr uint64_t kNever = UINT64_MAX;
constexpr long kPauseNs = 1'000'000; // between two looks whether a thread has left

struct Watch {
    PyObject_HEAD PyObject *node;
    WatchList *list;      // null when closed
    uint64_t deadline_us; // of the monotonic clock; kNever for none
};

Watch &of(PyObject *self)
{
    return *reinterpret_cast<Watch *>(self);
}

void close_watch(Watch &watch)
{
    WatchList *closed = std::exchange(watch.list, nullptr);
    if (!closed)
        return;
    NodeState &state = state_of(watch.node);
    std::erase(state.watches, closed);
    while (closed->waiting_threads > 0 && state.process == current_process()) {
        closed->wake();
        const WithoutInterpreter waiting;
        const timespec pause{0, kPauseNs};
        (void)nanosleep(&pause, nullptr);
    }
    delete closed;
}

// Gives the newest value of a topic. Null without an exception when there is nothing new.
PyObject *deliver(Watch &watch, const std::string &topic)
{
    NodeState &state = state_of(watch.node);
    TagValue value;
    const Outcome outcome = with_tags_locked(state, [&](kp_t *handle) {
        kp_tag_t *tag = kp_get_tag(handle, topic.c_str());
        return tag ? read_tag(tag, value) : Outcome::no_value;
    });
    // A topic that is being written comes again with its notice.
    if (outcome != Outcome::value || !watch.list ||
        !watch.list->is_news(topic, value.info.time_us, value.info.source_time_us))
        return nullptr;
    const Ref name(topic_object(topic));
    return name ? make_reading(name.get(), value.info, {value.bytes.data(), value.size}) : nullptr;
}

// Gives the next change that waits for its delivery. Null, without an exception, when none does.
PyObject *take_waiting(Watch &watch)
{
    while (watch.list && is_usable(state_of(watch.node))) {
        const auto topic = watch.list->take();
        if (!topic)
            return nullptr;
        PyObject *reading = deliver(watch, *topic);
        if (reading || PyErr_Occurred())
            return reading;
    }
    return nullptr;
}

// The timeout bounds the waiting for changes. What was there at the start comes however late it is.
bool is_over(const Watch &watch)
{
    return !watch.list || !state_of(watch.node).handle ||
           (!watch.list->owes() && tool::monotonic_us() >= watch.deadline_us);
}

PyObject *take_now(Watch &watch)
{
    PyObject *reading = take_waiting(watch);
    if (reading || PyErr_Occurred() || !watch.list)
        return reading;
    dispatch(state_of(watch.node));
    return take_waiting(watch);
}

// Waits until something happens or the time is over. False with an exception, from a signal's
// handler.
bool wait(Watch &watch)
{
    NodeState &state = state_of(watch.node);
    const uint64_t now = tool::monotonic_us();
    const uint64_t until = std::min(watch.deadline_us, next_look(state));
    const uint64_t left_ms = (until - std::min(now, until) + 999) / 1000;
    std::array<pollfd, 3> fds = {{{kp_get_fd(state.handle), POLLIN, 0},
                                  {state.closing.get(), POLLIN, 0},
                                  {watch.list->wake_fd(), POLLIN, 0}}};
    if (watch.list->has_waiting())
        return true;
    int error = 0;
    {
        const Counted use(state.users);
        const Counted listens(watch.list->waiting_threads);
        const WithoutInterpreter waiting;
        if (poll(fds.data(), fds.size(), static_cast<int>(left_ms)) < 0)
            error = errno;
    }
    return error != EINTR || PyErr_CheckSignals() == 0;
}

PyObject *next(PyObject *self)
{
    Watch &watch = of(self);
    while (!is_over(watch)) {
        PyObject *reading = take_now(watch);
        if (reading || PyErr_Occurred())
            return reading;
        if (is_over(watch))
            break;
        // The notices of what this thread has written are not kept while it waits.
        NodeState &state = state_of(watch.node);
        if (state.is_marked && !send_notice(state))
            return nullptr;
        if (is_over(watch))
            break;
        if (!wait(watch))
            return nullptr;
    }
    close_watch(watch);
    return nullptr;
}

PyObject *take(PyObject *self, PyObject *)
{
    Watch &watch = of(self);
    if (is_over(watch))
        Py_RETURN_NONE;
    PyObject *reading = take_now(watch);
    if (!reading && !PyErr_Occurred())
        Py_RETURN_NONE;
    return reading;
}

PyObject *close_method(PyObject *self, PyObject *)
{
    close_watch(of(self));
    Py_RETURN_NONE;
}

PyObject *get_is_over(PyObject *self, void *)
{
    return PyBool_FromLong(is_over(of(self)));
}

PyObject *get_has_waiting(PyObject *self, void *)
{
    return PyBool_FromLong(of(self).list && of(self).list->has_waiting());
}

PyObject *get_seconds_left(PyObject *self, void *)
{
    if (of(self).deadline_us == kNever)
        Py_RETURN_NONE;
    const uint64_t now = tool::monotonic_us();
    return PyFloat_FromDouble(
        static_cast<double>(of(self).deadline_us - std::min(now, of(self).deadline_us)) / 1e6);
}

bool take_timeout(PyObject *object, uint64_t &deadline_us)
{
    deadline_us = kNever;
    if (object == Py_None)
        return true;
    const double seconds = PyFloat_AsDouble(object);
    if (seconds == -1.0 && PyErr_Occurred())
        return false;
    if (std::isnan(seconds)) {
        raise(Kind::InvalidValueError, "a timeout is a number of seconds");
        return false;
    }
    if (seconds < 1e9)
        deadline_us = tool::monotonic_us() + static_cast<uint64_t>(std::max(0.0, seconds) * 1e6);
    return true;
}

// The arguments are those of WatchBase(node, pattern, timeout, initial).
PyObject *new_watch(PyTypeObject *type, PyObject *arguments, PyObject *)
{
    PyObject *node = nullptr;
    PyObject *pattern_object = nullptr;
    PyObject *timeout = nullptr;
    int initial = 1;
    uint64_t deadline_us = kNever;
    std::string pattern;
    if (!PyArg_ParseTuple(arguments, "OOOp", &node, &pattern_object, &timeout, &initial) ||
        !topic_text(pattern_object, pattern) || !take_timeout(timeout, deadline_us) ||
        !is_usable(state_of(node)))
        return nullptr;
    tool::Problem problem;
    tool::Selection selection;
    if (!selection.set({pattern}, {}, problem) || pattern.empty())
        return raise(problem.text.empty() ? tool::Problem{tool::kUsage, "a pattern needs a level"}
                                          : problem);
    NodeState &state = state_of(node);
    Ref self(PyType_GenericAlloc(type, 0));
    if (!self)
        return nullptr;
    Watch &watch = of(self.get());
    watch.node = counted(node);
    watch.deadline_us = deadline_us;
    watch.list = new WatchList(pattern);
    state.watches.push_back(watch.list);
    if (!follow(state, pattern))
        return raise_library("", "cannot follow " + pattern, errno);
    std::vector<std::string> present;
    if (initial) {
        const WithoutInterpreter listing;
        present = topics_of_store(pattern);
    }
    for (const std::string &topic : present)
        watch.list->add(topic);
    watch.list->owe_what_waits();
    return self.release();
}

int traverse(PyObject *self, visitproc visit, void *arg)
{
    Py_VISIT(Py_TYPE(self));
    Py_VISIT(of(self).node);
    return 0;
}

void free_watch(PyObject *self)
{
    PyObject_GC_UnTrack(self);
    if (of(self).node)
        close_watch(of(self));
    Py_XDECREF(of(self).node);
    free_object(self);
}

PyObject *itself(PyObject *self)
{
    return counted(self);
}

PyGetSetDef attributes[] = {
    {"_is_over", get_is_over, nullptr, "Closed, or its node is, or its time is over.", nullptr},
    {"_has_waiting", get_has_waiting, nullptr, "A change waits for its delivery.", nullptr},
    {"_seconds_left", get_seconds_left, nullptr, "Until its time is over, or None.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyMethodDef methods[] = {
    {"take", take, METH_NOARGS,
     "take($self, /)\n--\n\nThe next change (Reading), or None when there is none now. Never "
     "waits\n"
     "for one."},
    {"close", close_method, METH_NOARGS,
     "close($self, /)\n--\n\nEnds the watch, and with it every iteration over it."},
    {nullptr, nullptr, 0, nullptr}};

PyType_Slot slots[] = {{Py_tp_doc, const_cast<char *>("What Watch stands on.")},
                       {Py_tp_new, slot(new_watch)},
                       {Py_tp_dealloc, slot(free_watch)},
                       {Py_tp_traverse, slot(traverse)},
                       {Py_tp_iter, slot(itself)},
                       {Py_tp_iternext, slot(next)},
                       {Py_tp_getset, attributes},
                       {Py_tp_methods, methods},
                       {0, nullptr}};

PyType_Spec spec = {"zu_kp._native.WatchBase", sizeof(Watch), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC, slots};

} // namespace

bool add_watch_type(PyObject *module)
{
    return add_type(module, "WatchBase", spec) != nullptr;
}

} // namespace kp::python
