#include "config/file_problems.h"

#include "common/secret_file.h"
#include "config/credentials.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::mqtt {

namespace {

// Made by systemd when the service starts for the first time, which is after the check.
constexpr const char *kServiceFolder = "/var/lib/kp-mqtt";

std::string system_problem(const std::string &path)
{
    return path + ": " + std::strerror(errno);
}

std::string folder_problem(const std::string &path, int rights)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return system_problem(path);
    if (!S_ISDIR(status.st_mode))
        return path + ": is no directory";
    return access(path.c_str(), rights) == 0 ? "" : system_problem(path);
}

std::string plain_file_problem(const std::string &path, int rights)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return system_problem(path);
    if (!S_ISREG(status.st_mode))
        return path + ": is no file";
    return access(path.c_str(), rights) == 0 ? "" : system_problem(path);
}

// The first kind of PEM block in a file that ends so, or an empty text.
std::string pem_block(const std::string &path, std::string_view ending)
{
    constexpr std::string_view begin = "-----BEGIN ";
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(begin))
            continue;
        const std::string kind =
            line.substr(begin.size(), line.find("-----", begin.size()) - begin.size());
        if (kind.ends_with(ending))
            return kind;
    }
    return {};
}

std::string certificate_problem(const std::string &path)
{
    if (std::string problem = plain_file_problem(path, R_OK); !problem.empty())
        return problem;
    return pem_block(path, "CERTIFICATE").empty() ? path + ": holds no PEM block of a certificate"
                                                  : "";
}

std::string key_problem(const std::string &path)
{
    if (std::string problem = tool::secret_file_problem(path); !problem.empty())
        return problem;
    const std::string kind = pem_block(path, "PRIVATE KEY");
    if (kind.empty())
        return path + ": holds no PEM block of a private key";
    return kind == "ENCRYPTED PRIVATE KEY" ? path + ": is encrypted, and nobody could be asked for "
                                                    "its password"
                                           : "";
}

} // namespace

std::string state_file_problem(const std::string &path)
{
    if (path.empty())
        return {};
    const size_t slash = path.rfind('/');
    const std::string folder =
        slash == path.npos ? "." : path.substr(0, std::max<size_t>(slash, 1));
    if (folder == kServiceFolder && access(kServiceFolder, F_OK) != 0)
        return {};
    if (std::string problem = folder_problem(folder, W_OK | X_OK); !problem.empty())
        return "state-file: " + problem;
    for (const std::string &file : {path, path + ".lock"}) {
        struct stat status {};
        if (lstat(file.c_str(), &status) != 0 && errno == ENOENT)
            continue;
        if (std::string problem = plain_file_problem(file, R_OK | W_OK); !problem.empty())
            return "state-file: " + problem;
    }
    return {};
}

std::vector<std::string> file_problems(const BrokerSettings &broker)
{
    std::vector<std::string> problems;
    const auto note = [&problems](std::string problem) {
        if (!problem.empty())
            problems.push_back(std::move(problem));
    };
    if (!broker.credentials_file.empty())
        note(read_credentials(broker.credentials_file).problem);
    if (!broker.tls)
        return problems;
    for (const std::string &path : {broker.tls->ca_file, broker.tls->cert_file})
        if (!path.empty())
            note(certificate_problem(path));
    if (!broker.tls->ca_path.empty())
        note(folder_problem(broker.tls->ca_path, R_OK | X_OK));
    if (!broker.tls->key_file.empty())
        note(key_problem(broker.tls->key_file));
    return problems;
}

} // namespace kp::mqtt
