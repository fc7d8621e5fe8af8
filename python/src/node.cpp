#include "node.h"

#include "base/errors.h"
#include "base/store.h"
#include "tag/tag.h"
#include "watch/dispatch.h"
#include "watch/watch.h"

#include <cerrno>
#include <pthread.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

namespace kp::python {

namespace {

constexpr long kPauseNs = 1'000'000; // between two looks whether the users have left

PyObject *new_node(PyTypeObject *type, PyObject *, PyObject *)
{
    Ref self(PyType_GenericAlloc(type, 0));
    if (self)
        reinterpret_cast<Node *>(self.get())->state = new NodeState;
    return self.release();
}

// Only a node that is closed, or another process's, comes here: NodeBase.__del__ closes the others.
void free_node(PyObject *self)
{
    delete reinterpret_cast<Node *>(self)->state;
    free_object(self);
}

kp_t *open_handle(const std::string &name)
{
    kp_t *handle = kp_new(name.empty() ? nullptr : name.c_str(), nullptr);
    if (!handle)
        return nullptr;
    (void)kp_set_new_tag_notify(handle, 1);
    if (kp_get_fd(handle) >= 0)
        return handle;
    const KeepErrno keep;
    (void)kp_destroy(handle);
    return nullptr;
}

PyObject *open(PyObject *self, PyObject *arguments)
{
    NodeState &state = state_of(self);
    PyObject *name_object = nullptr;
    std::string name;
    if (!PyArg_ParseTuple(arguments, "|U", &name_object) ||
        (name_object && !topic_text(name_object, name)))
        return nullptr;
    if (state.was_opened)
        return raise(Kind::ClosedError, "the node was opened before; make a new one");
    state.was_opened = true;
    state.process = current_process();
    state.closing.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    kp_t *handle = nullptr;
    int error = errno;
    if (state.closing) {
        const WithoutInterpreter opening;
        errno = 0;
        handle = open_handle(name);
        error = errno;
    }
    if (!handle) {
        state.closing.reset();
        return raise_library("", "cannot open a node" + (name.empty() ? "" : " \"" + name + "\""),
                             error);
    }
    state.handle = handle;
    Py_RETURN_NONE;
}

// Lets every thread that waits on the node go, and waits until they have gone.
void send_users_away(NodeState &state)
{
    constexpr uint64_t kOne = 1;
    (void)!write(state.closing.get(), &kOne, sizeof(kOne));
    wake_all(state.watches);
    while (state.users > 0) {
        const WithoutInterpreter waiting;
        const timespec pause{0, kPauseNs};
        (void)nanosleep(&pause, nullptr);
    }
}

PyObject *close(PyObject *self, PyObject *)
{
    NodeState &state = state_of(self);
    state.was_opened = true; // it stays closed, also when it never was open
    kp_t *handle = std::exchange(state.handle, nullptr);
    if (!handle || state.process != current_process())
        Py_RETURN_NONE; // the threads and the socket are the parent's
    send_users_away(state);
    const bool is_marked = std::exchange(state.is_marked, false);
    {
        const WithoutInterpreter closing;
        if (is_marked)
            (void)kp_tag_notify(handle);
        (void)kp_close(handle);
    }
    Py_RETURN_NONE;
}

PyObject *fileno(PyObject *self, PyObject *)
{
    NodeState &state = state_of(self);
    return is_usable(state) ? PyLong_FromLong(kp_get_fd(state.handle)) : nullptr;
}

PyObject *dispatch_method(PyObject *self, PyObject *)
{
    dispatch(state_of(self));
    Py_RETURN_NONE;
}

PyObject *notify(PyObject *self, PyObject *)
{
    NodeState &state = state_of(self);
    if (!is_usable(state) || !send_notice(state))
        return nullptr;
    Py_RETURN_NONE;
}

PyObject *get_is_open(PyObject *self, void *)
{
    const NodeState &state = state_of(self);
    return PyBool_FromLong(state.handle && state.process == current_process());
}

PyObject *get_defers(PyObject *self, void *)
{
    return PyBool_FromLong(state_of(self).defers_notices);
}

int set_defers(PyObject *self, PyObject *value, void *)
{
    const int defers = value ? PyObject_IsTrue(value) : 0;
    if (defers < 0)
        return -1;
    state_of(self).defers_notices = defers == 1;
    return 0;
}

PyObject *get_is_marked(PyObject *self, void *)
{
    return PyBool_FromLong(state_of(self).is_marked);
}

PyGetSetDef attributes[] = {
    {"is_open", get_is_open, nullptr, "True from open to close, in the process that opened it.",
     nullptr},
    {"_defers_notices", get_defers, set_defers, "Writes send no notice by themselves.", nullptr},
    {"_is_marked", get_is_marked, nullptr, "Something was written since the last notice.", nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr}};

PyMethodDef methods[] = {
    {"_open", open, METH_VARARGS, "Opens the handle; waits without the interpreter's lock."},
    {"_close", close, METH_NOARGS, "Closes the handle with its tags, once."},
    {"fileno", fileno, METH_NOARGS,
     "fileno($self, /)\n--\n\nThe descriptor (int) that is readable while a change waits.\n\n"
     "For loops other than asyncio: wait until it is readable, then call take() of every watch\n"
     "until it returns None. Don't read from it and don't close it."},
    {"notify", notify, METH_NOARGS,
     "notify($self, /)\n--\n\nTells all peers which topics were written since the last notice.\n\n"
     "Waits, without the interpreter's lock, while a peer takes no more notices (about 278)."},
    {"_dispatch", dispatch_method, METH_NOARGS, "Gives the changes that wait to the watches."},
    {"_provide", make_provider, METH_VARARGS, "Makes a Provider."},
    {"_consume", make_consumer, METH_VARARGS, "Makes a Consumer."},
    {nullptr, nullptr, 0, nullptr}};

PyType_Slot slots[] = {{Py_tp_doc, const_cast<char *>("What Node stands on.")},
                       {Py_tp_new, slot(new_node)},
                       {Py_tp_dealloc, slot(free_node)},
                       {Py_tp_getset, attributes},
                       {Py_tp_methods, methods},
                       {0, nullptr}};

PyType_Spec spec = {"zu_kp._native.NodeBase", sizeof(Node), 0,
                    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE, slots};

} // namespace

bool add_node_type(PyObject *module)
{
    if (pthread_atfork(nullptr, nullptr, [] { ++process_number; }) != 0) {
        PyErr_NoMemory();
        return false;
    }
    return add_type(module, "NodeBase", spec) != nullptr;
}

} // namespace kp::python
