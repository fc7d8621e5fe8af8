// expect: deleted
#include <kp.hpp>

void use(kp::Node &node)
{
    kp::Node copy = node;
}
