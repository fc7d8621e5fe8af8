// The numbers that a topic had in the last minute, one for each second, and a small line of them.
#pragma once

#include "common/store/segment_reader.h"

#include <deque>
#include <optional>
#include <string>

namespace kp::tool {

// Gives the value as a number, from which only a line is drawn. Gives nothing for text and bytes,
// and where there is no value.
std::optional<double> number_of(const Snapshot &snapshot);

class ValueHistory {
  public:
    // To be called once a second, with nothing if that second has no number.
    void add(std::optional<double> number);

    // Gives a character for each of the last `columns` seconds; its height lies between the
    // smallest and the greatest number among them. Empty as long as there are no two different
    // numbers.
    std::string line(std::size_t columns) const;
    // "from 1 to 5 in the last 60s"; empty without a number.
    std::string range_text() const;

  private:
    std::deque<std::optional<double>> numbers_; // the newest last
};

} // namespace kp::tool
