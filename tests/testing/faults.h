// Failing, counting and hooking into the library's own calls of the system. Only the objects of the
// library are linked with the shims, so calls of the test, of GoogleTest and of the C library
// itself neither count nor fail. Calls of all threads count unless a shim is for its own thread
// only.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <pthread.h>

namespace kptest {

enum class Call {
#define KP_CALL(name, error) name,
#include "testing/calls.def"
#undef KP_CALL
};

const char *name_of(Call call);

class CallSet {
  public:
    constexpr CallSet(Call call) : bits_(bit(call))
    {
    }
    constexpr CallSet(std::initializer_list<Call> calls)
    {
        for (const Call call : calls)
            bits_ |= bit(call);
    }

    constexpr bool has(Call call) const
    {
        return (bits_ & bit(call)) != 0;
    }
    constexpr CallSet with(CallSet others) const
    {
        CallSet all = *this;
        all.bits_ |= others.bits_;
        return all;
    }
    constexpr CallSet without(CallSet others) const
    {
        CallSet rest = *this;
        rest.bits_ &= ~others.bits_;
        return rest;
    }

  private:
    static constexpr uint64_t bit(Call call)
    {
        return uint64_t{1} << static_cast<unsigned>(call);
    }

    uint64_t bits_ = 0;
};

// Every call that can fail; each fails with its usual error unless another one is given.
extern const CallSet kFallibleCalls;

constexpr int kUsualError = -1;

enum class Threads { all, this_one };

// What the shims below have in common. A shim is armed from its construction to disarm() or its
// end; several may be armed at once. A failing munmap or close has done its work all the same, so
// that a test can see what is really left behind. Any other call fails without an effect.
class Shim {
  public:
    Shim(const Shim &) = delete;
    Shim &operator=(const Shim &) = delete;
    ~Shim();

    void disarm();
    // Says how many of its calls were made since it was armed.
    long count() const;
    // Says whether it failed a call, or ran its hook.
    bool fired() const;
    // Gives the call on which it fired last. May be called only when it fired.
    Call fired_on() const;

    // Is for the shims alone: counts the call and says with which error it fails, 0 for none.
    int meet(Call call);

  protected:
    struct Rule {
        CallSet calls;
        long first; // counted from 1
        long last;
        int error;
        Threads threads;
        std::function<void()> before;
    };
    explicit Shim(Rule rule);

  private:
    const Rule rule_;
    const pthread_t thread_;
    std::atomic<long> count_{0};
    std::atomic<int> fired_on_{-1};
    bool armed_ = true;
};

// Fails the n-th call of the set from now on; 1 is the next one. It need not fire, so a driver can
// count n up until a scenario passes without a failure.
class FailNth : public Shim {
  public:
    FailNth(CallSet calls, long n, int error = kUsualError, Threads threads = Threads::all);
};

// Fails the n-th call of the set and all after it.
class FailFrom : public Shim {
  public:
    FailFrom(CallSet calls, long n, int error = kUsualError, Threads threads = Threads::all);
};

// Fails the next call of the set. The test fails when no such call is made.
class FailNext : public FailNth {
  public:
    explicit FailNext(CallSet calls, int error = kUsualError, Threads threads = Threads::all);
    ~FailNext();
};

// Counts calls and fails none.
class CountCalls : public Shim {
  public:
    explicit CountCalls(CallSet calls, Threads threads = Threads::all);
};

// Runs `hook` right before the n-th call of the set, on the thread that makes it: what another
// process does at just that moment. The test fails when no such call is made.
class Before : public Shim {
  public:
    Before(CallSet calls, std::function<void()> hook, long n = 1);
    ~Before();
};

// Counts the heap blocks that the library has allocated and not freed itself.
long live_blocks();

} // namespace kptest
