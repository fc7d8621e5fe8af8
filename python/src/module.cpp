// The module zu_kp._native: what the package zu_kp stands on. The package holds what waits in
// asyncio.
#include "base/errors.h"
#include "base/reading.h"
#include "base/store.h"
#include "describe.h"
#include "layout/value_type.h"
#include "node.h"
#include "tag/tag.h"
#include "watch/watch.h"

namespace kp::python {

namespace {

PyMethodDef functions[] = {
    {"get", get, METH_O,
     "get($module, topic, /)\n--\n\nThe latest value of a topic with its quality and times "
     "(Reading).\n\nLooks only: joins nothing, creates nothing, needs permission to read.\n\n"
     "Raises NotFoundError, NoValueError, AccessError, BusyError, CorruptError, TopicError."},
    {"list", list, METH_VARARGS,
     "list($module, pattern='#', /)\n--\n\nThe topics of the store that a pattern covers (sorted "
     "list of str).\n\nIn a pattern the level + stands for any one level and # for one or more "
     "remaining ones.\nLooks only. Directories that may not be entered are left out with a "
     "RuntimeWarning."},
    {"describe", describe, METH_VARARGS,
     "describe($module, topic, dictionary='', /)\n--\n\n"
     "What zu_kp.describe() makes a dict of (str): JSON, with the place of each fact."},
    {nullptr, nullptr, 0, nullptr}};

PyModuleDef definition = {PyModuleDef_HEAD_INIT,
                          "zu_kp._native",
                          "What the package zu_kp stands on.",
                          -1,
                          functions,
                          nullptr,
                          nullptr,
                          nullptr,
                          nullptr};

bool add_type_names(PyObject *module)
{
    Ref names(PyTuple_New(static_cast<Py_ssize_t>(kValueTypes.size())));
    for (const ValueType &type : kValueTypes) {
        PyObject *name = names ? PyUnicode_FromString(type.name) : nullptr;
        if (!name || PyTuple_SetItem(names.get(), static_cast<Py_ssize_t>(type.code), name) != 0)
            return false;
    }
    return PyModule_AddObject(module, "TYPES", names.release()) == 0;
}

} // namespace

} // namespace kp::python

PyMODINIT_FUNC PyInit__native(); // by the name that the interpreter looks for

PyMODINIT_FUNC PyInit__native()
{
    using namespace kp::python;
    Ref module(PyModule_Create(&definition));
    if (!module || !load_errors() || !add_reading_type(module.get()) ||
        !add_node_type(module.get()) || !add_tag_types(module.get()) ||
        !add_watch_type(module.get()) || !add_type_names(module.get()))
        return nullptr;
    return module.release();
}
