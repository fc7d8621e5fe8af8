#include "values/limit.h"

#include <array>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

namespace bench {

namespace {

constexpr const char *kFolder = "/dev/shm/bench-limit";
constexpr std::size_t kFileSize = 4080;

struct Slot {
    uint8_t unused_at_start[32];
    uint64_t write_ts;
    uint8_t unused_before_mark[2];
    uint8_t writing;
    uint8_t unused_after_mark[13];
    uint8_t quality;
    uint64_t source_ts;
    uint32_t size;
    uint8_t value[4004];
};
static_assert(sizeof(Slot) == kFileSize);

template <typename T> void store(T &field, T value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

template <typename T> T load(const T &field)
{
    return std::atomic_ref<T>(const_cast<T &>(field)).load(std::memory_order_relaxed);
}

void write_slot(Slot &slot, const std::byte *value, uint32_t size)
{
    timeval now{};
    (void)gettimeofday(&now, nullptr);
    const uint64_t ts =
        static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_usec);
    store(slot.write_ts, ts);
    store<uint8_t>(slot.writing, 1);
    std::atomic_thread_fence(std::memory_order_release);
    store<uint8_t>(slot.quality, 1);
    store(slot.source_ts, ts);
    std::memcpy(slot.value, value, size);
    store(slot.size, size);
    std::atomic_ref(slot.writing).store(0, std::memory_order_release);
}

uint64_t read_slot(const Slot &slot, std::byte *buffer)
{
    while (std::atomic_ref(const_cast<uint8_t &>(slot.writing)).load(std::memory_order_acquire) !=
           0)
        ;
    std::memcpy(buffer, slot.value, load(slot.size));
    return load(slot.write_ts);
}

std::string path_of(unsigned topic)
{
    return std::string(kFolder) + "/" + std::to_string(topic);
}

Slot *map_file(int fd)
{
    void *memory = mmap(nullptr, kFileSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    require(memory != MAP_FAILED, "mmap");
    return static_cast<Slot *>(memory);
}

void make_files()
{
    (void)mkdir(kFolder, 0777);
    for (unsigned topic = 0; topic < kTopics; ++topic) {
        const int fd = open(path_of(topic).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        require(fd >= 0 && ftruncate(fd, kFileSize) == 0, "a file of the limit");
        (void)close(fd);
    }
}

class MappedLimit {
  public:
    MappedLimit(Side side, uint32_t size) : size_(size)
    {
        if (side == Side::sender)
            make_files();
        for (unsigned topic = 0; topic < kTopics; ++topic) {
            const int fd = open(path_of(topic).c_str(), O_RDWR | O_CLOEXEC);
            require(fd >= 0, "open");
            slots_[topic] = map_file(fd);
            (void)close(fd);
        }
    }
    MappedLimit(const MappedLimit &) = delete;
    MappedLimit &operator=(const MappedLimit &) = delete;
    ~MappedLimit()
    {
        for (Slot *slot : slots_)
            (void)munmap(slot, kFileSize);
    }
    void write(unsigned topic, const std::byte *value)
    {
        write_slot(*slots_[topic], value, size_);
    }
    void read(unsigned topic, std::byte *buffer)
    {
        seen_[topic] = read_slot(*slots_[topic], buffer);
    }

  private:
    uint32_t size_;
    std::array<Slot *, kTopics> slots_{};
    std::array<uint64_t, kTopics> seen_{};
};

class RemappedLimit {
  public:
    RemappedLimit(Side side, uint32_t size) : size_(size)
    {
        if (side == Side::sender)
            make_files();
        for (unsigned topic = 0; topic < kTopics; ++topic)
            paths_[topic] = path_of(topic);
    }
    void write(unsigned topic, const std::byte *value)
    {
        with_slot(topic, [&](Slot &slot) { write_slot(slot, value, size_); });
    }
    void read(unsigned topic, std::byte *buffer)
    {
        with_slot(topic, [&](Slot &slot) { (void)read_slot(slot, buffer); });
    }

  private:
    template <typename Body> void with_slot(unsigned topic, Body body)
    {
        const char *path = paths_[topic].c_str();
        require(access(path, F_OK) == 0, "access");
        const int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        require(fd >= 0, "open");
        Slot *slot = map_file(fd);
        body(*slot);
        (void)munmap(slot, kFileSize);
        (void)close(fd);
    }

    uint32_t size_;
    std::array<std::string, kTopics> paths_;
};

} // namespace

OpenStore mapped_limit()
{
    return store_of<MappedLimit>();
}

OpenStore remapped_limit()
{
    return store_of<RemappedLimit>();
}

} // namespace bench
