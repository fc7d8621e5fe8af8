#include "tag/notice.h"

#include "base/node_state.h"

namespace kp::python {

namespace {

PyTypeObject *notice_type = nullptr;
PyObject *nothing = nullptr; // ()

struct Notice {
    PyObject_HEAD PyObject *node;
};

PyObject *await_notice(PyObject *self)
{
    NodeState &state = state_of(reinterpret_cast<Notice *>(self)->node);
    if (state.is_marked && (!is_usable(state) || !send_notice(state)))
        return nullptr;
    return PyObject_GetIter(nothing);
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

PyType_Slot notice_slots[] = {
    {Py_tp_doc, const_cast<char *>("What write() returns. Awaited, it sends the change notice.")},
    {Py_tp_dealloc, slot(free_notice)},
    {Py_tp_traverse, slot(traverse_notice)},
    {Py_am_await, slot(await_notice)},
    {0, nullptr}};

PyType_Spec notice_spec = {"zu_kp.Notice", sizeof(Notice), 0,
                           Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, notice_slots};

} // namespace

PyObject *make_notice(PyObject *node)
{
    PyObject *self = PyType_GenericAlloc(notice_type, 0);
    if (self)
        reinterpret_cast<Notice *>(self)->node = counted(node);
    return self;
}

bool add_notice_type(PyObject *module)
{
    nothing = PyTuple_New(0);
    notice_type = nothing ? add_type(module, "Notice", notice_spec) : nullptr;
    return notice_type != nullptr;
}

} // namespace kp::python
