// Serves one client that follows topics, with server-sent events: first the values that there are,
// then the newest ones, at most so many times a second.
//
// What it remembers is the number of the last change that it was given, the selection, and two bits
// for each topic.
#pragma once

#include "http/answer.h"
#include "store/board.h"

namespace kp::web {

class Stream : public Source {
  public:
    // `last_id` is the id of the last event that the client got before its connection broke, or
    // empty.
    Stream(Board &board, tool::Selection selection, uint64_t interval_us,
           const std::string &last_id);
    ~Stream() override;

    std::size_t read(std::span<char> room) override;
    bool is_at_end() const override
    {
        return false;
    }
    bool has_more() override;

  private:
    bool prepare_next();
    bool prepare_change();
    bool prepare_notice();
    bool begin_round();
    bool covers(const Board::Entry &entry);
    void begin_anew();

    Board &board_;
    const tool::Selection selection_;
    const uint64_t interval_us_;
    Outflow out_;
    uint64_t cursor_ = 0;      // the last change that was given
    uint64_t round_end_ = 0;   // the last one that this round gives
    uint64_t fresh_until_ = 0; // changes up to this are new to a client that knows nothing
    uint64_t next_round_us_ = 0;
    uint64_t sent_us_ = 0;
    uint64_t told_generation_ = 0;
    bool told_current_ = false;
    uint64_t numbering_ = 0;
    std::vector<bool> is_looked_at_; // by id: whether covers_ is known
    std::vector<bool> covers_;
};

} // namespace kp::web
