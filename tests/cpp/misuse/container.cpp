// expect: kp: a value is a bool, an integer
#include <kp.hpp>

#include <map>

void use(kp::Node &node)
{
    (void)node.consume<std::map<int, int>>("a");
}
