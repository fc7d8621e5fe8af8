// expect: kp: a value has at most 4000 bytes; this structure has more
#include <kp.hpp>

struct Large {
    char bytes[4001];
};

void use(kp::Node &node)
{
    (void)node.provide<Large>("a");
}
