// The parser of TOML, without its assertions. Some fail on input that it goes on to report as a
// mistake, as on the line "[=": as assertions they would end the program, and as assumptions, which
// they are in release builds of clang, they would be undefined behaviour.
#pragma once

#define TOML_ASSERT(expr) static_assert(true)
#include <toml++/impl/preprocessor.h>
#undef TOML_ASSERT_ASSUME
#define TOML_ASSERT_ASSUME(expr) static_assert(true)
#include <toml++/toml.h>
