#include "common/configuration_file.h"

#include "common/toml_text.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace kp::tool {

Result<toml::table> configuration_table(std::string_view text, const std::string &path)
{
    try {
        return Result<toml::table>::of(parse_toml(text));
    } catch (const toml::parse_error &error) {
        return Result<toml::table>::failed(path + ":" + std::to_string(error.source().begin.line) +
                                           ": " + std::string(error.description()));
    }
}

Result<std::string> configuration_text(const std::string &path)
{
    struct stat status {};
    std::ifstream file(path);
    if (!file || stat(path.c_str(), &status) != 0)
        return Result<std::string>::failed(path + ": " + std::strerror(errno));
    if (S_ISDIR(status.st_mode))
        return Result<std::string>::failed(path + ": " + std::strerror(EISDIR));
    return Result<std::string>::of({std::istreambuf_iterator<char>(file), {}});
}

} // namespace kp::tool
