#include "support/placement.h"

#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <vector>

namespace bench {

namespace {

const cpu_set_t &allowed_at_start()
{
    static const cpu_set_t allowed = [] {
        cpu_set_t set;
        CPU_ZERO(&set);
        (void)sched_getaffinity(0, sizeof set, &set);
        return set;
    }();
    return allowed;
}

std::vector<int> allowed_cpus()
{
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu)
        if (CPU_ISSET(cpu, &allowed_at_start()))
            cpus.push_back(cpu);
    return cpus;
}

void bind_to(const cpu_set_t &set)
{
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        std::perror("sched_setaffinity");
        std::exit(1);
    }
}

} // namespace

std::string_view name_of(Placement placement)
{
    switch (placement) {
    case Placement::one_cpu:
        return "one";
    case Placement::two_cpus:
        return "two";
    case Placement::free:
        return "free";
    }
    return "";
}

void take_place(Placement placement, Side side)
{
    const bool both_sides =
        placement == Placement::free || (placement == Placement::two_cpus && side == Side::broker);
    if (both_sides) {
        bind_to(allowed_at_start());
        return;
    }
    const std::vector<int> cpus = allowed_cpus();
    const bool other = placement == Placement::two_cpus && side == Side::receiver;
    if (other && cpus.size() < 2) {
        std::fputs("bench: this placement needs two processors\n", stderr);
        std::exit(1);
    }
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpus[other ? 1 : 0], &set);
    bind_to(set);
}

} // namespace bench
