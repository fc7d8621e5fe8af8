// Infers who provides a topic from changing counts and mappings: the store tells only how many
// providers and consumers there are, and both look alike from outside. A process whose role cannot
// be deduced counts as a possible provider.
//
// Deliberate: a process that changes from consumer to provider between two looks, with its number
// of handles and both counts as before, is taken for what it was. Its next write says that it is
// alive.
#pragma once

#include "providers/segment_holders.h"

#include <cstdint>
#include <vector>

namespace kp::mqtt {

struct HandleCounts {
    uint32_t providers = 0;
    uint32_t consumers = 0;

    bool operator==(const HandleCounts &) const = default;
};

class HandleRoles {
  public:
    // Says whether a look has found something else than the last one.
    bool differs(ino_t file, const HandleCounts &counted, const std::vector<Holder> &open) const;

    // Learns from a look during which the counts did not change.
    void learn(ino_t file, const HandleCounts &counted, const std::vector<Holder> &open);

    // Says whether providers are counted although no process that may be one has the topic open. If
    // some processes are hidden, it says so only of handles that all were seen before.
    bool providers_are_lost(Sight sight) const;

    // At the last look.
    const HandleCounts &counted() const
    {
        return counted_;
    }
    unsigned open_handles() const
    {
        return static_cast<unsigned>(tally().sum());
    }

  private:
    enum class Role : uint8_t { unknown, provider, consumer };
    struct Known {
        Holder holder;
        Role role;
    };

    // Handles by role.
    struct Tally {
        int64_t unknown = 0;
        int64_t providers = 0;
        int64_t consumers = 0;

        void add(Role role, unsigned handles);
        int64_t sum() const
        {
            return unknown + providers + consumers;
        }
    };

    Tally tally() const;
    Tally exchange_holders(const std::vector<Holder> &open);
    void forget_roles();
    void conclude();
    int64_t missing() const;

    ino_t file_ = 0;
    HandleCounts counted_;
    std::vector<Known> open_;
    HandleCounts
        lost_; // those of processes that ended without closing, as far as their role is known
    bool were_in_sight_ = false;
};

} // namespace kp::mqtt
