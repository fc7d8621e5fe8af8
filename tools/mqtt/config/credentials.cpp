#include "config/credentials.h"

#include "common/secret_file.h"

#include <fstream>

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
    if (std::string problem = tool::secret_file_problem(path); !problem.empty())
        return tool::Result<Credentials>::failed(std::move(problem));
    std::ifstream file(path);
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
