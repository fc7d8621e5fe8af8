#include "common/doctor/spelled_tags.h"

#include "kp.h"
#include "layout/unique_fd.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string_view>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unordered_map>

namespace kp::tool {

namespace {

// Larger regions are not the heap of an application on a device, but address space that is
// reserved.
constexpr uint64_t kMostRegion = uint64_t{256} << 20;
constexpr std::size_t kChunk = std::size_t{1} << 20;
constexpr std::size_t kMostTopic = 4096;

// The records in an application's memory that lead from a mapped segment to its topic's spelling;
// their layout is the same in all builds of the library.
struct ShmRecord {
    uint64_t fd;
    uint64_t segment; // address of the mapping
};
struct TagRecord {
    uint64_t topic;
    uint64_t shm;
    uint32_t hash;
    uint32_t role;
};

struct Region {
    uint64_t start;
    uint64_t end;
};

struct AddressSpace {
    std::unordered_map<uint64_t, FileId> segments; // by the address where it is mapped
    std::vector<Region> heaps;
};

void take_line(const std::string &line, dev_t store, AddressSpace &space)
{
    uint64_t start = 0;
    uint64_t end = 0;
    uint64_t inode = 0;
    unsigned major_number = 0;
    unsigned minor_number = 0;
    std::array<char, 5> access{};
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %*x %x:%x %" SCNu64, &start, &end,
                    access.data(), &major_number, &minor_number, &inode) != 6)
        return;
    const std::string_view rights = access.data();
    if (inode != 0 && rights == "rw-s" && makedev(major_number, minor_number) == store)
        space.segments[start] = {store, static_cast<ino_t>(inode)};
    if (inode == 0 && rights == "rw-p" && end - start <= kMostRegion)
        space.heaps.push_back({start, end});
}

AddressSpace address_space_of(pid_t pid, dev_t store)
{
    AddressSpace space;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    for (std::string line; std::getline(maps, line);)
        take_line(line, store, space);
    return space;
}

// Gives as much as could be read from there.
std::size_t read_memory(pid_t pid, uint64_t address, void *buffer, std::size_t size)
{
    const iovec own{buffer, size};
    // The address is one of the other process.
    const iovec other{reinterpret_cast<void *>(static_cast<uintptr_t>(address)), size};
    const ssize_t got = process_vm_readv(pid, &own, 1, &other, 1, 0);
    return got > 0 ? static_cast<std::size_t>(got) : 0;
}

template <typename Record> std::optional<Record> read_record(pid_t pid, uint64_t address)
{
    Record record{};
    if (read_memory(pid, address, &record, sizeof(record)) != sizeof(record))
        return std::nullopt;
    return record;
}

// Calls `use(address, word)` for each aligned word of the heaps.
template <typename Use>
void for_each_word(pid_t pid, const std::vector<Region> &heaps, const Use &use)
{
    std::vector<uint64_t> words(kChunk / sizeof(uint64_t));
    for (const Region &heap : heaps)
        for (uint64_t address = heap.start; address < heap.end; address += kChunk) {
            const std::size_t size = std::min<uint64_t>(kChunk, heap.end - address);
            const std::size_t got = read_memory(pid, address, words.data(), size);
            for (std::size_t index = 0; index < got / sizeof(uint64_t); ++index)
                use(address + index * sizeof(uint64_t), words[index]);
        }
}

// The handles on segments, by their addresses.
std::unordered_map<uint64_t, FileId> handles_of(pid_t pid, const AddressSpace &space)
{
    std::unordered_map<uint64_t, FileId> handles;
    for_each_word(pid, space.heaps, [&](uint64_t address, uint64_t word) {
        if (word % 4096 != 0)
            return;
        if (const auto found = space.segments.find(word); found != space.segments.end())
            handles[address - offsetof(ShmRecord, segment)] = found->second;
    });
    return handles;
}

// The topic of what looks like a tag's record; its hash proves that it is one.
std::optional<std::string> topic_of(pid_t pid, const TagRecord &tag)
{
    std::array<char, kMostTopic + 1> text{};
    if (tag.role != KP_ROLE_PROVIDER && tag.role != KP_ROLE_CONSUMER)
        return std::nullopt;
    std::size_t size = read_memory(pid, tag.topic, text.data(), kMostTopic);
    if (size == 0) // it ends where the memory ends
        size = read_memory(pid, tag.topic, text.data(), 4096 - tag.topic % 4096);
    if (size == 0 || kp_hash(text.data()) != tag.hash)
        return std::nullopt;
    return std::string(text.data());
}

void take_tags(pid_t pid, const AddressSpace &space,
               std::map<FileId, std::vector<SpelledTag>> &found)
{
    const auto handles = handles_of(pid, space);
    if (handles.empty())
        return;
    for_each_word(pid, space.heaps, [&](uint64_t address, uint64_t word) {
        const auto handle = handles.find(word);
        if (handle == handles.end())
            return;
        const auto tag = read_record<TagRecord>(pid, address - offsetof(TagRecord, shm));
        if (const auto topic = tag ? topic_of(pid, *tag) : std::nullopt)
            found[handle->second].push_back({pid, tag->role, *topic});
    });
}

} // namespace

std::map<FileId, std::vector<SpelledTag>> find_spelled_tags(dev_t store)
{
    std::map<FileId, std::vector<SpelledTag>> found;
    const UniqueDir proc(opendir("/proc"));
    while (const dirent *entry = proc ? proc.next() : nullptr) {
        const auto pid = static_cast<pid_t>(std::atoi(entry->d_name));
        const AddressSpace space = pid > 0 ? address_space_of(pid, store) : AddressSpace();
        if (!space.segments.empty())
            take_tags(pid, space, found);
    }
    return found;
}

} // namespace kp::tool
