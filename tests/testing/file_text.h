// What a file holds, for tests that read documents, logs and sources.
#pragma once

#include <fstream>
#include <iterator>
#include <string>

namespace kptest {

// Gives all bytes of a file; none when it cannot be read.
inline std::string file_text(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace kptest
