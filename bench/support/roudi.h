// The iceoryx daemon of this run, and processes that register with it.
#pragma once

#include "support/clock.h"
#include "support/process.h"

#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <string>
#include <unistd.h>

namespace bench {

inline Child start_roudi()
{
    (void)unlink("/tmp/roudi"); // it is left of an earlier daemon of this run
    Child daemon = run_program({"iox-roudi", "--monitoring-mode", "off"});
    wait_until([] { return access("/tmp/roudi", F_OK) == 0; }, 10'000, "iox-roudi");
    return daemon;
}

// A process registers once; names are taken until the daemon sees that their owner is gone.
inline void join_roudi(const std::string &name)
{
    iox::log::LogManager::GetLogManager().SetDefaultLogLevel(
        iox::log::LogLevel::kError, iox::log::LogLevelOutput::kHideLogLevel);
    const std::string unique = name + "-" + std::to_string(getpid());
    iox::runtime::PoshRuntime::initRuntime(
        iox::RuntimeName_t(iox::cxx::TruncateToCapacity, unique.c_str()));
}

} // namespace bench
