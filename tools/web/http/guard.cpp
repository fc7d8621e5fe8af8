#include "http/guard.h"

#include <algorithm>
#include <cctype>
#include <iterator>

namespace kp::web {

namespace {

std::string in_small_letters(std::string_view text)
{
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// Gives what stands in front of the port; empty when the text is no name with a port.
std::string_view without_port(std::string_view host)
{
    const bool is_bracketed = host.starts_with('[');
    const std::size_t bracket = host.find(']');
    if (is_bracketed && bracket == host.npos)
        return {};
    const std::size_t colon = is_bracketed ? bracket + 1 : std::min(host.find(':'), host.size());
    std::string_view port = host.substr(colon);
    if (port.empty())
        return host;
    port.remove_prefix(1);
    const bool is_port = host[colon] == ':' && std::all_of(port.begin(), port.end(), [](char c) {
                             return c >= '0' && c <= '9';
                         });
    return is_port ? host.substr(0, colon) : std::string_view();
}

} // namespace

Guard::Guard(const std::vector<std::string> &hosts)
{
    std::ranges::transform(hosts, std::back_inserter(hosts_), in_small_letters);
    hosts_.insert(hosts_.end(), {"localhost", "127.0.0.1", "[::1]"});
}

bool Guard::is_own_host(std::string_view host) const
{
    const std::string name = in_small_letters(without_port(host));
    return !name.empty() && std::find(hosts_.begin(), hosts_.end(), name) != hosts_.end();
}

bool Guard::is_same_origin(std::string_view origin, std::string_view host)
{
    for (const std::string_view scheme : {"http://", "https://"})
        if (origin.starts_with(scheme))
            return in_small_letters(origin.substr(scheme.size())) == in_small_letters(host);
    return false;
}

} // namespace kp::web
