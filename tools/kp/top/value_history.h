// The numbers that a topic had in the last minute, one for each second, and a small line of them.
#pragma once

#include "common/segment_reader.h"

#include <deque>
#include <optional>
#include <string>

namespace kp::tool {

// The value as a number, of which nothing but a line is drawn; nothing for text, bytes and what is none.
std::optional<double> number_of(const Snapshot &snapshot);

class ValueHistory {
  public:
    // Called once a second; nothing for a second without a number.
    void add(std::optional<double> number);

    // A character for each of the last `columns` seconds, from the least of them to the greatest; empty
    // before there are two different numbers.
    std::string line(std::size_t columns) const;
    // "from 1 to 5 in the last 60s"; empty without a number.
    std::string range_text() const;

  private:
    std::deque<std::optional<double>> numbers_; // the newest last
};

} // namespace kp::tool
