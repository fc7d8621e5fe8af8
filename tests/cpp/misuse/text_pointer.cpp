// expect: kp: give texts as std::string or std::string_view
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.provide<const char *>("a");
}
