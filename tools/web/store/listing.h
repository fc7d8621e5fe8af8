// Gives a line of JSON for each topic of a selection, made while it is sent.
#pragma once

#include "http/answer.h"
#include "store/board.h"

#include <functional>

namespace kp::web {

class Listing : public Source {
  public:
    // Makes the line of a topic. An empty line is left out.
    using Line = std::function<std::string(const tool::LiveTopic &)>;

    Listing(const Board &board, tool::Selection selection, Line line)
        : board_(board), selection_(std::move(selection)), line_(std::move(line))
    {
    }

    std::size_t read(std::span<char> room) override;
    bool is_at_end() const override
    {
        return is_done_ && out_.is_empty();
    }
    bool has_more() override
    {
        return true;
    }

  private:
    bool prepare_next();

    const Board &board_;
    const tool::Selection selection_;
    const Line line_;
    Outflow out_;
    std::string last_; // the topic of the last line
    bool is_done_ = false;
};

} // namespace kp::web
