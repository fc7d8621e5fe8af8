#include "common/dictionary/live_dictionary.h"

#include "common/text/text.h"
#include "layout/unique_fd.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <utility>

namespace kp::tool {

namespace {

constexpr off_t kMostFileBytes = 16 << 20;

// The names that end in ".toml", none where no directory is and nobody asked for one; nothing, with
// errno set, when it cannot be read.
std::optional<std::set<std::string>> names_in(const DictionaryPlace &place)
{
    std::set<std::string> names;
    const UniqueDir entries(opendir(place.directory.c_str()));
    if (!entries && errno == ENOENT && !place.was_named)
        return names;
    if (!entries)
        return std::nullopt;
    while (const dirent *entry = entries.next())
        if (const std::string name = entry->d_name; name.ends_with(".toml") && name[0] != '.')
            names.insert(name);
    return names;
}

// What a file of that size holds; nothing, with errno set, when reading fails.
std::optional<std::string> read_all(const UniqueFd &fd, off_t size)
{
    std::string text(static_cast<std::size_t>(size), '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const ssize_t count = read(fd.get(), text.data() + filled, text.size() - filled);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            break;
        filled += static_cast<std::size_t>(count);
    }
    text.resize(filled);
    return text;
}

} // namespace

DictionaryPlace dictionary_place(const std::string &option)
{
    if (!option.empty())
        return {option, true};
    const char *named = std::getenv("KP_DICTIONARY");
    if (named && *named)
        return {named, true};
    return {kDictionaryDirectory, false};
}

LiveDictionary::LiveDictionary(DictionaryPlace place) : place_(std::move(place))
{
    (void)refresh();
}

void LiveDictionary::report(const std::string &path, const std::string &text)
{
    DictionaryProblem problem;
    problem.place.file = std::make_shared<const std::string>(path);
    problem.text = text;
    problems_.push_back(std::move(problem));
}

// Reads a file when it is another than the one that is known; says whether it brought anything new.
bool LiveDictionary::take_file(const std::string &path, Known &known)
{
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    const int error = fd && fstat(fd.get(), &status) == 0 ? 0 : errno;
    const Stamp stamp{file_id(status), status.st_size,
                      status.st_ctim.tv_sec * 1'000'000'000 + status.st_ctim.tv_nsec, error};
    if (known.stamp == stamp)
        return false;
    known.stamp = stamp;
    known.is_sound = false;
    if (error != 0) {
        report(path, std::strerror(error));
        return false;
    }
    if (!S_ISREG(status.st_mode) || status.st_size > kMostFileBytes) {
        report(path, S_ISREG(status.st_mode) ? "is larger than 16 MiB" : "is no file");
        return false;
    }
    const auto text = read_all(fd, status.st_size);
    if (!text) {
        report(path, std::strerror(errno));
        return false;
    }
    auto file = std::make_shared<DictionaryFile>(parse_dictionary_file(*text, path));
    problems_.insert(problems_.end(), file->problems.begin(), file->problems.end());
    known.is_sound = file->problems.empty();
    if (known.file && !known.is_sound)
        return false; // the one before holds until the mistakes are mended
    known.file = std::move(file);
    return true;
}

bool LiveDictionary::refresh()
{
    const auto names = names_in(place_);
    if (!names) {
        const int error = errno;
        if (!std::exchange(told_of_directory_, true))
            report(place_.directory, std::strerror(error));
        return false;
    }
    told_of_directory_ = false;
    bool is_new = false;
    for (auto known = files_.begin(); known != files_.end();) {
        const bool is_gone = !names->contains(std::filesystem::path(known->first).filename());
        is_new |= is_gone;
        known = is_gone ? files_.erase(known) : std::next(known);
    }
    for (const std::string &name : *names) {
        const std::string path = place_.directory + "/" + name;
        is_new |= take_file(path, files_[path]);
    }
    if (!is_new)
        return false;
    std::vector<std::shared_ptr<const DictionaryFile>> files;
    for (const auto &[path, known] : files_)
        if (known.file)
            files.push_back(known.file);
    current_ = std::make_shared<const Dictionary>(std::move(files));
    return true;
}

bool LiveDictionary::is_whole() const
{
    return !told_of_directory_ &&
           std::ranges::all_of(files_, [](const auto &known) { return known.second.is_sound; });
}

std::vector<DictionaryProblem> LiveDictionary::take_problems()
{
    return std::exchange(problems_, {});
}

} // namespace kp::tool
