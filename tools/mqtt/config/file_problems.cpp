#include "config/file_problems.h"

#include "common/config/secret_file.h"
#include "common/dictionary/live_dictionary.h"
#include "common/problem.h"
#include "config/credentials.h"
#include "tls/certificate.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace kp::mqtt {

namespace {

// Made by systemd when the service starts for the first time, which is after the check.
constexpr const char *kServiceFolder = "/var/lib/kp-mqtt";

std::string folder_problem(const std::string &path, int rights)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return tool::system_text(path, errno);
    if (!S_ISDIR(status.st_mode))
        return path + ": is no directory";
    return access(path.c_str(), rights) == 0 ? "" : tool::system_text(path, errno);
}

std::string plain_file_problem(const std::string &path, int rights)
{
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return tool::system_text(path, errno);
    if (!S_ISREG(status.st_mode))
        return path + ": is no file";
    return access(path.c_str(), rights) == 0 ? "" : tool::system_text(path, errno);
}

using Lines = std::vector<std::string>;

// What brokers have in common is said once.
Lines of_all(const Configuration &configuration, Lines (*problems_of)(const BrokerSettings &))
{
    Lines all;
    for (const BrokerSettings *broker : configuration.brokers())
        for (std::string &problem : problems_of(*broker))
            if (std::ranges::find(all, problem) == all.end())
                all.push_back(std::move(problem));
    return all;
}

} // namespace

std::vector<std::string> file_problems(const Configuration &configuration)
{
    return of_all(configuration, file_problems);
}

std::vector<std::string> date_problems(const Configuration &configuration)
{
    return of_all(configuration, date_problems);
}

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
    for (const std::string &file : {path, path + ".lock", path + ".handles"}) {
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
    const TlsSettings &tls = *broker.tls;
    const size_t before = problems.size();
    for (const std::string &path : {tls.ca_file, tls.cert_file})
        if (!path.empty())
            note(plain_file_problem(path, R_OK));
    if (!tls.ca_path.empty())
        note(folder_problem(tls.ca_path, R_OK | X_OK));
    if (!tls.key_file.empty())
        note(tool::secret_file_problem(tls.key_file));
    if (problems.size() == before)
        for (std::string &problem : content_problems(tls.ca_file, tls.cert_file, tls.key_file))
            note(std::move(problem));
    return problems;
}

std::vector<std::string> date_problems(const BrokerSettings &broker)
{
    std::vector<std::string> problems;
    const TlsSettings tls = broker.tls.value_or(TlsSettings{});
    for (const std::string &path : {tls.ca_file, tls.cert_file})
        if (std::string problem = path.empty() ? "" : file_date_problem(path); !problem.empty())
            problems.push_back(std::move(problem));
    return problems;
}

std::vector<std::string> dictionary_mistakes(const std::string &directory)
{
    std::vector<std::string> lines;
    for (const auto &mistake :
         tool::LiveDictionary(tool::dictionary_place(directory)).take_problems())
        lines.push_back(tool::place_text(mistake.place) + ": " + mistake.text);
    return lines;
}

} // namespace kp::mqtt
