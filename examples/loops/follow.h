// What every program of this folder does with the changes of its node: prints them, until there
// were ten.
#pragma once

#include <kp.hpp>

#include <iostream>

class Follower {
  public:
    Follower()
    {
        node.subscribe("loops/#").value();
        std::cout << "ready" << std::endl;
    }

    // Call it when node.fd() is readable. Gives false once it is enough.
    bool take_changes()
    {
        for (kp::Change change : node.take()) {
            std::cout << change.topic() << ' ' << change.value() << std::endl;
            ++count;
        }
        return count < 10;
    }

    kp::Node node{""}; // a made-up name, so that several of them can run

  private:
    int count = 0;
};
