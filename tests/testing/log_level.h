// Sets the library's user level for as long as an object lives. Afterwards the level is again what
// it is at load time.
#pragma once

#include "kp.h"

namespace kptest {

class LogLevel {
  public:
    explicit LogLevel(uint32_t level)
    {
        kp_xlog_set_user_level(level);
    }
    LogLevel(const LogLevel &) = delete;
    LogLevel &operator=(const LogLevel &) = delete;
    ~LogLevel()
    {
        kp_xlog_set_user_level(KP_LEVEL_WARN);
    }
};

} // namespace kptest
