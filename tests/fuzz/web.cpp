// What a browser or a program may send to kp-web, and what any program may have put into the store.
// No bytes may end the parsers, and none may break the lines that are sent.
#include "fuzz/fuzz.h"

#include "http/guard.h"
#include "http/target.h"
#include "store/row_line.h"

#include <algorithm>
#include <nlohmann/json.hpp>

using namespace kpfuzz;
using namespace kp::web;

namespace {

void try_request(std::string_view text)
{
    if (const auto target = parse_target(text)) {
        check(target.problem.empty(), "a target that is taken has no problem");
        check(target.value->path.starts_with('/'), "a path begins with a slash");
        check(target.value->path.find('\0') == std::string::npos, "no path has a zero byte");
        (void)target.value->all("q");
    } else {
        check(!target.problem.empty(), "a target that is refused has a problem");
    }
    const Guard guard({"press-7.example"});
    const bool is_own = guard.is_own_host(text);
    check(!is_own || text.find_first_of("/@ \t\r\n") == std::string_view::npos,
          "a host is a name with a port");
    check(!Guard::is_same_origin(text, "localhost") || text.find("://") < 6,
          "an origin has a scheme");
}

// One line of printable ASCII, which reads back as an object.
void check_line(const std::string &line)
{
    const bool is_plain =
        std::all_of(line.begin(), line.end() - 1, [](char c) { return c >= ' ' && c <= '~'; });
    check(line.ends_with('\n') && is_plain, "a line has nothing that could break a stream");
    check(nlohmann::json::parse(line, nullptr, false).is_object(), "a line is an object");
}

void try_row(const std::string &topic, const std::string &value)
{
    const kp::tool::Dictionary dictionary;
    kp::tool::Snapshot snapshot;
    snapshot.condition = kp::tool::Condition::value;
    snapshot.type = KP_TYPE_STRING;
    snapshot.bytes = value;
    snapshot.size = static_cast<uint32_t>(value.size());
    check_line(row_line({topic, snapshot}, dictionary));
    check_line(topic_line(topic));
    check_line(facts_line(topic, dictionary));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    try_request(text);
    try_row(text.substr(0, size / 2), text.substr(size / 2));
    return 0;
}
