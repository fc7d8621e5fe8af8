// expect: kp: without exceptions a node is made by kp::Node::open(name)
// options: -fno-exceptions
#include <kp.hpp>

void use()
{
    kp::Node node{"name"};
}
