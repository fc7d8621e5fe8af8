#include "testing/leaks.h"

#include "testing/faults.h"
#include "testing/process.h"

#include <ostream>

namespace kptest {

Holdings Holdings::now()
{
    return {open_descriptors(), thread_count(), live_blocks(), mapping_count()};
}

std::ostream &operator<<(std::ostream &out, const Holdings &holdings)
{
    out << holdings.threads << " threads, " << holdings.blocks << " blocks, " << holdings.mappings
        << " mappings";
    for (const auto &[fd, target] : holdings.descriptors)
        out << ", " << fd << " " << target;
    return out;
}

LeavesNothingBehind::LeavesNothingBehind() : before_(Holdings::now())
{
}

LeavesNothingBehind::~LeavesNothingBehind()
{
    EXPECT_EQ(Holdings::now(), before_);
}

} // namespace kptest
