// Writes a value, reads it back through a consumer of its own and prints it.
#include <kp.hpp>

#include <iostream>

int main()
{
    kp::Node node{"consumer"};
    auto provider = node.provide<std::int32_t>("installed/answer");
    auto consumer = node.consume<std::int32_t>("installed/answer");
    if (!provider.write(42))
        return 1;
    std::cout << consumer.read().value().value << '\n';
}
