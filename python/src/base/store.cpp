#include "base/store.h"

#include "base/errors.h"
#include "base/reading.h"
#include "common/names/topic_name.h"
#include "common/store/segment_reader.h"
#include "common/store/store_files.h"
#include "common/store/store_walk.h"

namespace kp::python {

namespace {

PyObject *raise_no_value(const std::string &topic, const tool::Snapshot &snapshot)
{
    const std::string text = tool::value_problem(topic, snapshot).text;
    switch (snapshot.condition) {
    case tool::Condition::busy:
        return raise(Kind::BusyError, text);
    case tool::Condition::corrupt:
        return raise(Kind::CorruptError, text);
    default:
        return raise(Kind::NoValueError, text);
    }
}

// Gives the topics that a listing found, and warns of each directory that it could not enter.
PyObject *names_of(const tool::StoreListing &listing)
{
    for (const tool::Problem &problem : listing.problems)
        if (PyErr_WarnFormat(PyExc_RuntimeWarning, 1, "%s", problem.text.c_str()) != 0)
            return nullptr;
    Ref names(PyList_New(0));
    for (const tool::StoreFile &file : listing.files) {
        const Ref name(names ? topic_object(file.topic) : nullptr);
        if (!name || PyList_Append(names.get(), name.get()) != 0)
            return nullptr;
    }
    return names.release();
}

} // namespace

PyObject *topic_object(const std::string &text)
{
    return PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()),
                                "surrogateescape");
}

bool topic_text(PyObject *topic, std::string &text)
{
    if (!PyUnicode_Check(topic)) {
        raise(Kind::TypeMismatchError, "a topic is a str");
        return false;
    }
    const Ref bytes(PyUnicode_AsEncodedString(topic, "utf-8", "surrogateescape"));
    if (!bytes) {
        PyErr_Clear();
        raise(Kind::TopicError, "a topic is UTF-8, which has no surrogates");
        return false;
    }
    text.assign(PyBytes_AsString(bytes.get()), static_cast<std::size_t>(PyBytes_Size(bytes.get())));
    if (text.find('\0') == std::string::npos)
        return true;
    raise(Kind::TopicError, "a topic holds no NUL");
    return false;
}

bool normal_topic(PyObject *object, std::string &topic)
{
    std::string text;
    if (!topic_text(object, text))
        return false;
    tool::Problem problem;
    auto name = tool::normal_topic(text, problem);
    if (!name) {
        raise(problem);
        return false;
    }
    topic = std::move(*name);
    return true;
}

PyObject *get(PyObject *, PyObject *object)
{
    std::string topic;
    if (!normal_topic(object, topic))
        return nullptr;
    tool::Problem problem;
    std::optional<tool::Snapshot> snapshot;
    {
        const WithoutInterpreter reading;
        tool::TopicOpener opener;
        snapshot = tool::read_topic(opener, topic, problem);
    }
    if (!snapshot)
        return raise(problem);
    if (snapshot->condition != tool::Condition::value)
        return raise_no_value(topic, *snapshot);
    const Ref name(topic_object(topic));
    const ReadingInfo info{snapshot->last_write_ts, snapshot->source_ts, snapshot->type,
                           snapshot->quality};
    return name ? make_reading(name.get(), info, snapshot->bytes) : nullptr;
}

PyObject *list(PyObject *, PyObject *arguments)
{
    PyObject *pattern = nullptr;
    if (!PyArg_ParseTuple(arguments, "|U:list", &pattern))
        return nullptr;
    std::string text = "#";
    if (pattern && !topic_text(pattern, text))
        return nullptr;
    tool::Problem problem;
    tool::Selection selection;
    if (!selection.set({text}, {}, problem))
        return raise(problem);
    tool::StoreListing listing;
    {
        const WithoutInterpreter reading;
        listing = tool::list_store(selection);
    }
    return names_of(listing);
}

} // namespace kp::python
