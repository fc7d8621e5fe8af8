// expect: kp: a pointer means nothing in another process
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.provide<int *>("a");
}
