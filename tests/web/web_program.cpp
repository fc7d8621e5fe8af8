#include "web/web_program.h"

#include "testing/file_text.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <unistd.h>

namespace kptest {

namespace {

std::string in_quotes(const std::string &word)
{
    std::string out = "'";
    for (const char c : word)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

} // namespace

std::string output_of(const std::string &command)
{
    FILE *pipe = popen(command.c_str(), "r");
    std::string out;
    char room[4096];
    for (std::size_t got; pipe && (got = fread(room, 1, sizeof room, pipe)) > 0;)
        out.append(room, got);
    if (pipe)
        (void)pclose(pipe);
    return out;
}

WebProgram::WebProgram(const std::string &more)
{
    static std::atomic<int> count = 0;
    folder_ = "/run/kp-web-test-" + std::to_string(++count);
    std::filesystem::create_directory(folder_);
    configure(more);
    process_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "/bin/sh", "-c",
        "exec '" KP_WEB "' -c " + folder_ + "/kp-web.conf 2>>" + folder_ + "/log"});
    const std::string said = "listening on 127.0.0.1:";
    if (!wait_for_log(said))
        ADD_FAILURE() << "kp-web does not start: " << log();
    const std::string text = log();
    const std::size_t at = text.find(said);
    if (at != text.npos)
        port_ = static_cast<uint16_t>(std::stoi(text.substr(at + said.size())));
}

WebProgram::~WebProgram()
{
    process_->signal(SIGTERM);
    EXPECT_EQ(process_->wait(), 0) << log();
}

void WebProgram::configure(const std::string &more) const
{
    std::ofstream(folder_ + "/kp-web.conf") << "listen = [\"127.0.0.1:0\"]\n" << more;
}

Got WebProgram::get(const std::string &path, const std::vector<std::string> &options) const
{
    std::string command = KP_CURL " --silent --include --max-time 120 --path-as-is";
    for (const std::string &option : options)
        command += " " + in_quotes(option);
    const std::string text =
        output_of(command + " " + in_quotes("http://127.0.0.1:" + std::to_string(port_) + path));
    const std::size_t end = text.find("\r\n\r\n");
    if (end == text.npos)
        return {};
    return {std::stoi(text.substr(text.find(' '))), text.substr(0, end), text.substr(end + 4)};
}

std::string WebProgram::log() const
{
    return file_text(folder_ + "/log");
}

bool WebProgram::wait_for_log(const std::string &text) const
{
    return wait_until([&] {
        const std::string said = log();
        const std::size_t at = said.find(text);
        return at != said.npos && said.find('\n', at) != said.npos;
    });
}

long WebProgram::memory() const
{
    std::ifstream file("/proc/" + std::to_string(process_->pid()) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("RssAnon:"))
            return std::stol(line.substr(8));
    return 0;
}

std::size_t WebProgram::descriptor_count() const
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(process_->pid()) +
                                                  "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

} // namespace kptest
