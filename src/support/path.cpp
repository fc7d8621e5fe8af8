#include "support/path.h"

#include <cstdarg>
#include <cstdio>

namespace kp {

bool format_text(std::span<char> out, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(out.data(), out.size(), format, arguments);
    va_end(arguments);
    return length >= 0 && static_cast<std::size_t>(length) < out.size();
}

} // namespace kp
