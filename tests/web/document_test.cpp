// The commands that docs/web.md shows, as a reader types them.
#include "testing/store_provider.h"
#include "web/web_program.h"

#include <fstream>
#include <gtest/gtest.h>

using namespace kptest;

namespace {

std::vector<std::string> commands_of_the_document()
{
    std::vector<std::string> commands;
    std::ifstream document(KP_WEB_DOCUMENT);
    for (std::string line; std::getline(document, line);)
        if (line.starts_with("curl "))
            commands.push_back(line.substr(0, line.find(" #")));
    return commands;
}

TEST(WebDocument, ShowsCommandsThatWork)
{
    StoreProvider tag("plant/press/speed", KP_TYPE_DOUBLE);
    tag.write(bytes_of(21.5));
    const WebProgram web;
    const std::string port = ":" + std::to_string(web.port()) + "/";

    const auto commands = commands_of_the_document();
    ASSERT_GE(commands.size(), 8U);
    for (std::string command : commands) {
        command.replace(command.find(":8420/"), 6, port);
        EXPECT_EQ(output_of(command + " --max-time 2 -o /dev/null -w '%{http_code}'"), "200")
            << command;
    }
}

} // namespace
