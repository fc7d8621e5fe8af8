// expect: kp: without exceptions a provider is made by kp::Provider<T>::open(node, topic)
// options: -fno-exceptions
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.provide<int>("a");
}
