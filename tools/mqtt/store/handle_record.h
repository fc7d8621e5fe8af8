// The tags that the bridge provides, in a file. A run that is killed leaves its counts in their
// segments, where they look like those of a program that lives; by this record the next run knows
// them. A tag is noted before it is opened and until it has been closed, so the record may name one
// that is not counted.
#pragma once

#include "base/journal.h"

#include <set>
#include <string>

namespace kp::mqtt {

class HandleRecord {
  public:
    // An empty path keeps nothing.
    explicit HandleRecord(const std::string &path) : journal_(path)
    {
    }
    // Reads what an earlier run has left and writes the file anew. Gives what went wrong, or an
    // empty text.
    std::string load();

    // To be called before a tag is opened and after it is closed, by one thread.
    void add(const std::string &tag);
    void remove(const std::string &tag);

    // The tags in which a run that was killed may still be counted. They change only by give_up(),
    // which is called before there are threads.
    const std::set<std::string> &left() const
    {
        return left_;
    }
    void give_up(const std::string &tag);

  private:
    Journal::Whole whole() const;
    void append(char sign, const std::string &tag);

    Journal journal_;
    std::set<std::string> left_;
    std::set<std::string> own_;
};

} // namespace kp::mqtt
