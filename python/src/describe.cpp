#include "describe.h"

#include "base/store.h"
#include "common/dictionary/fact_lines.h"
#include "common/dictionary/live_dictionary.h"

#include <map>
#include <nlohmann/json.hpp>

namespace kp::python {

namespace {

// Gives the dictionary of a directory, which is read once and then followed. The interpreter's lock
// is held.
tool::LiveDictionary &dictionary_in(const std::string &directory)
{
    static std::map<std::string, tool::LiveDictionary> known;
    const auto place = tool::dictionary_place(directory);
    const auto [found, is_new] = known.try_emplace(place.directory, place);
    if (!is_new)
        (void)found->second.refresh();
    return found->second;
}

} // namespace

PyObject *describe(PyObject *, PyObject *arguments)
{
    PyObject *object = nullptr;
    PyObject *path = nullptr;
    std::string topic;
    if (!PyArg_ParseTuple(arguments, "O|O&:describe", &object, PyUnicode_FSConverter, &path))
        return nullptr;
    const Ref directory(path);
    if (!normal_topic(object, topic))
        return nullptr;
    tool::LiveDictionary &dictionary =
        dictionary_in(directory ? PyBytes_AsString(directory.get()) : "");
    for (const tool::DictionaryProblem &mistake : dictionary.take_problems()) {
        const std::string line = tool::place_text(mistake.place) + ": " + mistake.text;
        if (PyErr_WarnFormat(PyExc_RuntimeWarning, 2, "%s", line.c_str()) != 0)
            return nullptr;
    }
    const std::string facts = tool::facts_json(dictionary.current()->facts_of(topic))
                                  .dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
    return PyUnicode_DecodeUTF8(facts.data(), static_cast<Py_ssize_t>(facts.size()), "strict");
}

} // namespace kp::python
