// Lets a piece of work end that must not be left half done, whatever signals come meanwhile.
#pragma once

#include <csignal>
#include <initializer_list>

namespace kp::tool {

// Every signal but those of crashes, which concern the program itself.
inline sigset_t all_but_crashes()
{
    sigset_t set;
    (void)sigfillset(&set);
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
        (void)sigdelset(&set, number);
    return set;
}

// While it lives, signals to this thread wait. It lives for moments only, since they have to be
// heard.
class HeldSignals {
  public:
    HeldSignals()
    {
        const sigset_t held = all_but_crashes();
        (void)pthread_sigmask(SIG_BLOCK, &held, &before_);
    }
    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;
    ~HeldSignals()
    {
        (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }

  private:
    sigset_t before_;
};

} // namespace kp::tool
