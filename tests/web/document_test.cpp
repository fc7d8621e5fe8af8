// The commands that docs/web.md shows, as a reader types them.
#include "testing/store_provider.h"
#include "web/web_program.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <utility>

using namespace kptest;

namespace {

std::vector<std::string> commands_of_the_document()
{
    std::vector<std::string> commands;
    std::ifstream document(KP_WEB_DOCUMENT);
    bool goes_on = false;
    for (std::string line; std::getline(document, line);) {
        if (std::exchange(goes_on, false))
            commands.back() += line;
        else if (line.starts_with("curl "))
            commands.push_back(line.substr(0, line.find(" #")));
        else
            continue;
        goes_on = commands.back().ends_with('\\');
        if (goes_on)
            commands.back().pop_back();
    }
    return commands;
}

TEST(WebDocument, ShowsCommandsThatWork)
{
    StoreProvider tag("plant/press/speed", KP_TYPE_DOUBLE);
    tag.write(bytes_of(21.5));
    StoreProvider written("plant/press/setpoint", KP_TYPE_DOUBLE);
    std::ofstream("/run/token") << "a-token-of-the-document\n";
    std::filesystem::permissions("/run/token", std::filesystem::perms(0600));
    const WebProgram web("page = \"" KP_WEB_PAGE_FOLDER "\"\n[[write]]\ntopics = [\"plant/#\"]\n"
                         "token-file = \"/run/token\"\n");
    const std::string port = ":" + std::to_string(web.port()) + "/";

    const auto commands = commands_of_the_document();
    ASSERT_GE(commands.size(), 11U);
    for (std::string command : commands) {
        command.replace(command.find(":8420/"), 6, port);
        if (const std::size_t token = command.find("/etc/kp-web/token"); token != command.npos)
            command.replace(token, 17, "/run/token");
        // A stream of events does not end by itself.
        const bool goes_on = command.find("/watch") != command.npos;
        command += goes_on ? " --max-time 2" : " --max-time 60";
        EXPECT_EQ(output_of(command + " -o /dev/null -w '%{http_code}'"), "200") << command;
    }
}

} // namespace
