// Writes a number ten times, each when it reads a line: so the programs of this folder can be shown
// ten changes. `provider | follower` would do as well with a sleep between.
#include <kp.hpp>

#include <iostream>
#include <string>

int main()
{
    kp::Node node{"loops-provider"};
    auto number = node.provide<std::int32_t>("loops/number");
    std::cout << "ready" << std::endl;
    std::string line;
    for (std::int32_t value = 1; value <= 10 && std::getline(std::cin, line); ++value) {
        number.write(value).value();
        node.notify();
    }
    std::getline(std::cin, line); // until its input ends
}
