// expect: kp: long double is no value type; use double
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.consume<long double>("a");
}
