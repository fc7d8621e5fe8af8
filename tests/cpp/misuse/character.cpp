// expect: kp: a character type is neither a number nor a text here
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.consume<char>("a");
}
