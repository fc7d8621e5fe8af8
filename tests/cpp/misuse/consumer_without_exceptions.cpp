// expect: kp: without exceptions a consumer is made by kp::Consumer<T>::open(node, topic)
// options: -fno-exceptions
#include <kp.hpp>

void use(kp::Node &node)
{
    (void)node.consume<int>("a");
}
