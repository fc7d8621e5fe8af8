// A value as it was read: an object that keeps the bytes and makes Python objects of them on
// demand.
#pragma once

#include "base/object.h"

#include <cstdint>
#include <string_view>

namespace kp::python {

// What belongs to a value, as one look found it. Times are microseconds since the epoch.
struct ReadingInfo {
    uint64_t time_us;
    uint64_t source_time_us;
    uint32_t type;
    uint8_t quality;
};

bool add_reading_type(PyObject *module);

// Makes a reading. Null with an exception. `topic` is a str.
PyObject *make_reading(PyObject *topic, const ReadingInfo &info, std::string_view bytes);

// Makes a numpy array of these bytes. `dtype` is what numpy takes for one. Null with an exception.
PyObject *make_array(std::string_view bytes, PyObject *dtype);

} // namespace kp::python
