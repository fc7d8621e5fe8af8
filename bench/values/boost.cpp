// Boost.Interprocess: a record under a process-shared mutex in managed shared memory.
#include "values/limit.h"

#include <boost/interprocess/managed_shared_memory.hpp>
#include <boost/interprocess/sync/interprocess_mutex.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>
#include <cstring>
#include <sys/time.h>

namespace bench {

namespace {

namespace ipc = boost::interprocess;

constexpr const char *kSegment = "bench-boost";

struct Record {
    ipc::interprocess_mutex mutex;
    timeval written;
    uint32_t size;
    std::byte value[kLargestValue];
};

class BoostRecords {
  public:
    BoostRecords(Side side, uint32_t size) : size_(size)
    {
        if (side == Side::sender) {
            ipc::shared_memory_object::remove(kSegment);
            memory_ = ipc::managed_shared_memory(ipc::create_only, kSegment, 1 << 20);
            records_ = memory_.construct<Record>("records")[kTopics]();
        } else {
            memory_ = ipc::managed_shared_memory(ipc::open_only, kSegment);
            records_ = memory_.find<Record>("records").first;
        }
    }
    void write(unsigned topic, const std::byte *value)
    {
        Record &record = records_[topic];
        timeval now{};
        (void)gettimeofday(&now, nullptr);
        const ipc::scoped_lock lock(record.mutex);
        record.written = now;
        record.size = size_;
        std::memcpy(record.value, value, size_);
    }
    void read(unsigned topic, std::byte *buffer)
    {
        Record &record = records_[topic];
        const ipc::scoped_lock lock(record.mutex);
        seen_ = record.written;
        std::memcpy(buffer, record.value, record.size);
    }

  private:
    uint32_t size_;
    timeval seen_{};
    ipc::managed_shared_memory memory_;
    Record *records_ = nullptr;
};

} // namespace

std::vector<ValueContestant> value_contestants()
{
    return {{"Boost.Interprocess", store_of<BoostRecords>(), mapped_limit()}};
}

} // namespace bench
