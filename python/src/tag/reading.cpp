// What reads the value of a tag.
#include "tag/tag_object.h"

#include "base/errors.h"
#include "base/node_state.h"
#include "base/store.h"
#include "base/tag_reading.h"
#include "base/values.h"
#include "layout/field.h"

namespace kp::python {

namespace {

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
                            [&](kp_t *) { // it has no tag when it was closed meanwhile
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

// Gives the value as it is now. False with an exception.
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

} // namespace

bool is_usable(const Tag &tag)
{
    if (!is_usable(state_of(tag.node)))
        return false;
    if (tag.tag)
        return true;
    raise(Kind::ClosedError, "the tag is closed");
    return false;
}

PyObject *get_value(PyObject *self, void *)
{
    TagValue value;
    return read(tag_of(self), value) ? to_python(value.info.type, {value.bytes.data(), value.size})
                                     : nullptr;
}

PyObject *read_method(PyObject *self, PyObject *)
{
    TagValue value;
    if (!read(tag_of(self), value))
        return nullptr;
    return make_reading(tag_of(self).topic, value.info, {value.bytes.data(), value.size});
}

PyObject *numpy_method(PyObject *self, PyObject *dtype)
{
    TagValue value;
    if (!read(tag_of(self), value))
        return nullptr;
    return make_array({value.bytes.data(), value.size}, dtype);
}

} // namespace kp::python
