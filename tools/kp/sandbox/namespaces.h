// The namespaces of a sandbox: mounts of its own, and on demand a network of its own. Who is not
// root gets them through a user namespace, in which everybody keeps his own number.
#pragma once

#include "common/problem.h"

namespace kp::tool {

enum class Network { shared, none };

// Takes this process, which must have one thread only, and the children that it starts from now on
// into namespaces of their own. False with a problem where the system allows none.
bool enter_namespaces(Network network, Problem &problem);

} // namespace kp::tool
