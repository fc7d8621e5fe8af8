#include "providers/handle_roles.h"

#include <algorithm>

namespace kp::mqtt {

void HandleRoles::Tally::add(Role role, unsigned handles)
{
    (role == Role::provider ? providers : role == Role::consumer ? consumers : unknown) += handles;
}

bool HandleRoles::differs(ino_t file, const HandleCounts &counted,
                          const std::vector<Holder> &open) const
{
    return file != file_ || counted != counted_ ||
           !std::ranges::equal(open_, open, {}, &Known::holder);
}

void HandleRoles::learn(ino_t file, const HandleCounts &counted, const std::vector<Holder> &open)
{
    if (file != std::exchange(file_, file)) {
        open_.clear();
        counted_ = {};
        lost_ = {};
        were_in_sight_ = false;
    }
    const int64_t missed = missing();
    const Tally left = exchange_holders(open);
    counted_ = counted;
    were_in_sight_ = were_in_sight_ || missing() == 0;
    // Either all of those who left have closed, or none has; else it cannot be told who did.
    const int64_t newly_missing = missing() - missed;
    if (newly_missing != 0 && newly_missing == left.sum()) {
        lost_.providers += static_cast<uint32_t>(left.providers);
        lost_.consumers += static_cast<uint32_t>(left.consumers);
    } else if (newly_missing != 0) {
        forget_roles();
    }
    conclude();
}

// Remembers the holders, and keeps the roles of those that have as many handles as before. Returns
// the handles of the others.
HandleRoles::Tally HandleRoles::exchange_holders(const std::vector<Holder> &open)
{
    std::vector<Known> before = std::exchange(open_, {});
    for (const Holder &holder : open) {
        const auto known = std::ranges::find(before, holder, &Known::holder);
        open_.push_back({holder, known == before.end() ? Role::unknown : known->role});
        if (known != before.end())
            before.erase(known);
    }
    Tally left;
    for (const Known &known : before)
        left.add(known.role, known.holder.handles);
    return left;
}

// If all handles of one role are known, the others have the other role.
void HandleRoles::conclude()
{
    const Tally open = tally();
    const int64_t providers = int64_t{counted_.providers} - lost_.providers - open.providers;
    const int64_t consumers = int64_t{counted_.consumers} - lost_.consumers - open.consumers;
    if (missing() < 0 || providers < 0 || consumers < 0)
        return forget_roles(); // somebody has it open and is not counted
    if (providers > 0 && consumers > 0)
        return;
    for (Known &known : open_)
        if (known.role == Role::unknown)
            known.role = providers > 0 ? Role::provider : Role::consumer;
    const Tally now = tally();
    lost_ = {static_cast<uint32_t>(counted_.providers - now.providers),
             static_cast<uint32_t>(counted_.consumers - now.consumers)};
}

void HandleRoles::forget_roles()
{
    lost_ = {};
    for (Known &known : open_)
        known.role = Role::unknown;
}

HandleRoles::Tally HandleRoles::tally() const
{
    Tally open;
    for (const Known &known : open_)
        open.add(known.role, known.holder.handles);
    return open;
}

// The handles that are counted although no process has them.
int64_t HandleRoles::missing() const
{
    return int64_t{counted_.providers} + counted_.consumers - tally().sum();
}

bool HandleRoles::providers_are_lost(Sight sight) const
{
    if (sight == Sight::partial || (sight == Sight::trusted && !were_in_sight_))
        return false;
    return counted_.providers > 0 && std::ranges::all_of(open_, [](const Known &known) {
               return known.role == Role::consumer;
           });
}

} // namespace kp::mqtt
