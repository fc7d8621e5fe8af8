#include "config/credentials.h"

#include "common/config/secret_file.h"

#include <sstream>

namespace kp::mqtt {

namespace {

std::string without_line_end(std::string line)
{
    if (line.ends_with('\r'))
        line.pop_back();
    return line;
}

} // namespace

tool::Result<Credentials> read_credentials(const std::string &path)
{
    auto text = tool::read_secret_file(path);
    if (!text)
        return tool::Result<Credentials>::failed(std::move(text.problem));
    std::istringstream file(std::move(*text.value));
    Credentials credentials;
    if (!std::getline(file, credentials.user) || without_line_end(credentials.user).empty())
        return tool::Result<Credentials>::failed(path + ": the first line must be the user's name");
    if (!std::getline(file, credentials.password))
        return tool::Result<Credentials>::failed(path + ": the second line must be the password");
    credentials.user = without_line_end(credentials.user);
    credentials.password = without_line_end(credentials.password);
    return tool::Result<Credentials>::of(std::move(credentials));
}

} // namespace kp::mqtt
