// A device in a process with a store of its own: its tags, its bridge, and its line to the broker.
#pragma once

#include "testing/child.h"

#include <string>

namespace kptest {

class OtherDevice {
  public:
    // Waits until the bridge is connected.
    OtherDevice(int broker_port, const std::string &rules, const std::string &name = "other");

    // Carries out an order and says whether that went well:
    //   declare TOPIC [TYPE], write TOPIC TEXT [SOURCE_TIME_US], drop TOPIC,
    //   await TOPIC TEXT, await TOPIC (that it has no value),
    //   cut and mend (the line), stop, start, kill (the bridge), connected (since its start).
    bool does(const std::string &order);

    // What the tag holds, as "TYPE TEXT"; "none" where it has no value.
    std::string value(const std::string &topic);

  private:
    ChildProcess process_;
};

} // namespace kptest
