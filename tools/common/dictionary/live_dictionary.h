// The dictionary of a directory, kept up to date by programs that run for long.
#pragma once

#include "common/dictionary/dictionary.h"
#include "common/system/file_id.h"

#include <map>

namespace kp::tool {

constexpr const char *kDictionaryDirectory = "/etc/zu-kp/tags.d";

// The directory that a program's option, else KP_DICTIONARY, else the default names.
struct DictionaryPlace {
    std::string directory;
    bool was_named = false; // so that it is a problem when it is missing
};

DictionaryPlace dictionary_place(const std::string &option);

// Only one thread may use an object of this class; any thread may use the dictionary that it gives.
class LiveDictionary {
  public:
    explicit LiveDictionary(DictionaryPlace place);

    // Reads the files "*.toml" that are new or have changed. A file that has mistakes now and was
    // read before stays as it was. Says whether the dictionary is another one than before.
    bool refresh();

    // Never null. What was looked up in it is valid as long as the pointer is held.
    const std::shared_ptr<const Dictionary> &current() const
    {
        return current_;
    }

    // Whether all that the files say is understood, so that what is not in the dictionary is not
    // meant to be.
    bool is_whole() const;

    // What was wrong in the files that were read since the last call.
    std::vector<DictionaryProblem> take_problems();

  private:
    struct Stamp {
        FileId id;
        off_t size = 0;
        int64_t changed_ns = 0; // the inode's change time, which nobody can set
        int error = 0;          // errno, where the file could not be opened

        bool operator==(const Stamp &) const = default;
    };
    struct Known {
        std::optional<Stamp> stamp; // of the last look
        std::shared_ptr<const DictionaryFile> file;
        bool is_sound = false; // at the last look
    };

    bool take_file(const std::string &path, Known &known);
    void report(const std::string &path, const std::string &text);

    DictionaryPlace place_;
    std::map<std::string, Known> files_; // by path, which sorts as the names do
    std::shared_ptr<const Dictionary> current_ = std::make_shared<Dictionary>();
    std::vector<DictionaryProblem> problems_;
    bool told_of_directory_ = false;
};

} // namespace kp::tool
