// The store's listing for a command that goes on with what it can read.
#pragma once

#include "common/store/store_walk.h"
#include "running/outcome.h"

namespace kp::tool {

// Lists what a selection covers, and notes what of it cannot be read.
inline StoreListing list_store(const Selection &selection, Outcome &outcome)
{
    StoreListing listing = list_store(selection);
    outcome.note(listing.problems);
    return listing;
}

} // namespace kp::tool
