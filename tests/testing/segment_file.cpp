#include "testing/segment_file.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

namespace kptest {

namespace fs = std::filesystem;

std::string segment_file_path(const std::string &topic)
{
    return "/dev/shm/zu-kp/" + topic;
}

bool exists(const std::string &path)
{
    return fs::exists(path);
}

SegmentFile::SegmentFile(const std::string &topic) : path_(segment_file_path(topic))
{
}

bool SegmentFile::exists() const
{
    return fs::exists(path_);
}

off_t SegmentFile::size() const
{
    return static_cast<off_t>(fs::file_size(path_));
}

std::string SegmentFile::bytes(off_t offset, std::size_t count) const
{
    std::string bytes(count, '\0');
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(pread(fd, bytes.data(), count, offset), static_cast<ssize_t>(count))
        << path_ << ": " << std::strerror(errno);
    (void)close(fd);
    return bytes;
}

std::string SegmentFile::all() const
{
    return bytes(0, static_cast<std::size_t>(size()));
}

void SegmentFile::put_bytes(off_t offset, const std::string &bytes) const
{
    const int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()))
        << path_ << ": " << std::strerror(errno);
    (void)close(fd);
}

template <typename T> T SegmentFile::get(off_t offset) const
{
    T value;
    std::memcpy(&value, bytes(offset, sizeof(T)).data(), sizeof(T));
    return value;
}

template <typename T> void SegmentFile::put(off_t offset, T value) const
{
    put_bytes(offset, std::string(reinterpret_cast<const char *>(&value), sizeof(T)));
}

uint8_t SegmentFile::u8(off_t offset) const
{
    return get<uint8_t>(offset);
}

uint16_t SegmentFile::u16(off_t offset) const
{
    return get<uint16_t>(offset);
}

uint32_t SegmentFile::u32(off_t offset) const
{
    return get<uint32_t>(offset);
}

uint64_t SegmentFile::u64(off_t offset) const
{
    return get<uint64_t>(offset);
}

void SegmentFile::put_u8(off_t offset, uint8_t value) const
{
    put(offset, value);
}

void SegmentFile::put_u16(off_t offset, uint16_t value) const
{
    put(offset, value);
}

void SegmentFile::put_u32(off_t offset, uint32_t value) const
{
    put(offset, value);
}

void SegmentFile::put_u64(off_t offset, uint64_t value) const
{
    put(offset, value);
}

void SegmentFile::create(off_t size) const
{
    fs::create_directories(fs::path(path_).parent_path());
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    EXPECT_EQ(ftruncate(fd, size), 0) << path_ << ": " << std::strerror(errno);
    (void)close(fd);
}

void SegmentFile::remove() const
{
    fs::remove(path_);
}

} // namespace kptest
