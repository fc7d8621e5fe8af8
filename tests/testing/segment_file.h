// A segment as the bytes of its file, by the offsets of the file format and with nothing of the
// library's own records.
#pragma once

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace kptest {

// Where each field stands in the file.
namespace at {
constexpr off_t sem = 0;
constexpr off_t last_write_ts = 32;
constexpr off_t provider_refs = 40;
constexpr off_t consumer_refs = 41;
constexpr off_t writing = 42;
constexpr off_t flags = 43;
constexpr off_t value_type = 44;
constexpr off_t max_value_size = 48;
constexpr off_t extra_info = 52;
constexpr off_t quality = 56;
constexpr off_t reserved = 57;
constexpr off_t source_ts = 64;
constexpr off_t written_value_size = 72;
constexpr off_t value = 76;
constexpr off_t end = 4080;
} // namespace at

constexpr uint8_t kValidFlag = 1;
constexpr uint8_t kHasValueFlag = 2;

// Gives the path of a topic's file.
std::string segment_file_path(const std::string &topic);

// Says whether a path, or a topic's file, exists.
bool exists(const std::string &path);

// A topic's file. It is opened and closed in each call, and need not exist before.
class SegmentFile {
  public:
    explicit SegmentFile(const std::string &topic);

    const std::string &path() const
    {
        return path_;
    }
    bool exists() const;
    off_t size() const;

    uint8_t u8(off_t offset) const;
    uint16_t u16(off_t offset) const;
    uint32_t u32(off_t offset) const;
    uint64_t u64(off_t offset) const;
    std::string bytes(off_t offset, std::size_t count) const;
    std::string all() const;

    void put_u8(off_t offset, uint8_t value) const;
    void put_u16(off_t offset, uint16_t value) const;
    void put_u32(off_t offset, uint32_t value) const;
    void put_u64(off_t offset, uint64_t value) const;
    void put_bytes(off_t offset, const std::string &bytes) const;

    // Makes the file, with its directories, of `size` zero bytes, of which no page is reserved.
    void create(off_t size = at::end) const;
    void remove() const;

  private:
    template <typename T> T get(off_t offset) const;
    template <typename T> void put(off_t offset, T value) const;

    std::string path_;
};

} // namespace kptest
