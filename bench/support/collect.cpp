#include "support/collect.h"

#include "support/process.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace bench {

namespace {

std::string read_all(int fd)
{
    std::string text;
    char part[4096];
    for (ssize_t size = 0; (size = read(fd, part, sizeof part)) > 0;)
        text.append(part, static_cast<std::size_t>(size));
    return text;
}

bool write_all(int fd, const std::string &text)
{
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t size = write(fd, text.data() + done, text.size() - done);
        if (size <= 0)
            return false;
        done += static_cast<std::size_t>(size);
    }
    return true;
}

} // namespace

nlohmann::json collect_in_child(const std::function<void(nlohmann::json &rows)> &measure)
{
    int ends[2];
    if (pipe(ends) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    Child child = run_in_child([&] {
        nlohmann::json rows = nlohmann::json::array();
        measure(rows);
        return write_all(ends[1], rows.dump()) ? 0 : 1;
    });
    (void)close(ends[1]);
    const std::string text = read_all(ends[0]);
    (void)close(ends[0]);
    const bool succeeded = child.wait();
    if (!succeeded)
        std::exit(1);
    return nlohmann::json::parse(text);
}

} // namespace bench
