// Asks by connecting whether anybody listens on a Unix-domain socket. A listener notices it as a
// peer that leaves again at once.
#pragma once

#include <string>

namespace kp::tool {

// Gives 0 when the connection is taken, else the errno of the refusal. ECONNREFUSED proves that
// nobody listens, in this network namespace or another; EAGAIN that somebody does, before whom too
// many connections wait.
int probe_socket(const std::string &path);

} // namespace kp::tool
