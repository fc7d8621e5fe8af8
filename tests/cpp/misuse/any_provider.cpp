// expect: kp: a provider declares one type; kp::Value is for consumers
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.provide<kp::Value>("a");
}
