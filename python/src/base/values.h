// Values of the fourteen types as Python objects and back.
#pragma once

#include "base/object.h"

#include "kp.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace kp::python {

// Gives the code of a type's name. UINT32_MAX, with an exception, for anything else. The exception
// explains why a Python type is refused: it does not say how many bytes a number has.
uint32_t type_code(PyObject *name);

// Makes a bool, int, float, str or bytes. A string that is not UTF-8 becomes bytes. Null with an
// exception.
PyObject *to_python(uint32_t type, std::string_view bytes);

// The bytes of a value on their way into a tag.
struct ValueBytes {
    std::array<char, KP_MAX_VALUE_SIZE> bytes;
    uint32_t size = 0;
};

// Converts an object to a type. `most` is the declared size of a type of variable size. False, with
// an exception that tells the limits, for an object that does not fit.
bool to_bytes(PyObject *object, uint32_t type, uint32_t most, ValueBytes &value);

} // namespace kp::python
