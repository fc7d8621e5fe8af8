// expect: kp: the type is given without const and &
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.consume<const int>("a");
}
