// Where the processes of a run stand: all on one processor, the two sides on two, or wherever the
// kernel puts them.
#pragma once

#include <array>
#include <string_view>

namespace bench {

enum class Placement { one_cpu, two_cpus, free };
enum class Side { sender, receiver, broker };

inline constexpr std::array<Placement, 3> kPlacements{Placement::one_cpu, Placement::two_cpus,
                                                      Placement::free};

std::string_view name_of(Placement placement);

// Binds the calling thread, and what it starts later, to its side's processor. A broker, which
// stands between the sides, is bound only where both share one processor.
void take_place(Placement placement, Side side);

} // namespace bench
