// A file of lines that is only appended to, and written anew when it has grown stale: what has been
// noted stays when the process is killed.
#pragma once

#include "layout/unique_fd.h"

#include <functional>
#include <string>
#include <string_view>

namespace kp::mqtt {

class Journal {
  public:
    // Nothing is read or made yet. With an empty path nothing is kept, and all succeeds.
    explicit Journal(std::string path) : path_(std::move(path))
    {
    }

    // Calls `take` with each line that stands in the file, without its end. A last line that was
    // cut short by a crash is left out.
    void read(const std::function<void(const std::string &line)> &take) const;

    // What stands for all that is known now, and how many lines these are.
    struct Whole {
        std::string text;
        size_t lines;
    };
    // Writes the file anew. Gives what went wrong, or an empty text, as append() does.
    std::string rewrite(const Whole &whole);
    // Adds a line. Where the file has grown stale by that, or where a line could not be added
    // before, it is written anew with `whole` instead, which knows what the line says. `lines` says
    // how many lines that would be.
    std::string append(const std::string &line, size_t lines, const std::function<Whole()> &whole);

    // Of the file; -1 before it is written.
    int fd() const
    {
        return fd_.get();
    }

  private:
    std::string path_;
    UniqueFd fd_;
    size_t lines_ = 0;
    bool failed_ = false;
};

} // namespace kp::mqtt
