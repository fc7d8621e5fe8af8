// The topics that the live view shows, as rows below their titles, cut to the width of the screen.
#pragma once

#include "common/dictionary/meaning.h"
#include "output/screen.h"
#include "top/top_data.h"

#include <optional>
#include <span>

namespace kp::tool {

class TopicRows {
  public:
    // Both outlive the rows. Values older than `stale_us` microseconds are faint where the
    // dictionary says nothing else.
    TopicRows(TopData &data, Screen &screen, uint64_t stale_us)
        : data_(data), screen_(screen), stale_us_(stale_us)
    {
    }

    // Puts the titles in the row and these topics below them, and marks the one at `cursor`. If
    // `is_frozen` it shows the values that were read last.
    void draw(int row, std::span<const std::string> topics, std::optional<std::size_t> cursor,
              bool is_frozen);

  private:
    // The columns that the width of the screen decides.
    struct Widths {
        std::size_t topic;
        std::size_t value;
    };
    static constexpr std::size_t kColumns = 9;

    Widths widths_for(std::span<const std::string> topics) const;
    static std::string row_text(const std::array<std::string, kColumns> &cells,
                                const Widths &widths);
    std::string value_cell(const std::string &topic, const std::string &value,
                           const Widths &widths) const;
    std::string topic_row(const std::string &topic, const ShownTopic &shown, const Meaning &meaning,
                          const Widths &widths) const;
    Style style_of(const ShownTopic &shown, const Meaning &meaning) const;

    TopData &data_;
    Screen &screen_;
    const uint64_t stale_us_;
};

} // namespace kp::tool
