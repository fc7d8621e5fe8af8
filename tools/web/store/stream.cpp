#include "store/stream.h"

#include "common/clock.h"
#include "common/text/parse_number.h"

namespace kp::web {

namespace {

// After so long without an event something is sent all the same: a proxy or a router forgets a
// connection that is silent for long, and a client that has vanished is found out by what it does
// not take.
constexpr uint64_t kSilenceUs = 15 * tool::kUsPerSecond;

constexpr const char *kReset = "event: reset\ndata: {}\n\n";

// Gives the change that an id names, if it is one of this run and all that came after it is known.
std::optional<uint64_t> change_of(const std::string &id, const Board &board)
{
    const std::string start = board.instance() + "-";
    if (!id.starts_with(start))
        return std::nullopt;
    const auto change = tool::parse_number<uint64_t>(std::string_view(id).substr(start.size()));
    const bool is_known = change && *change <= board.sequence() && *change >= board.forgotten();
    return is_known ? change : std::nullopt;
}

} // namespace

Stream::Stream(Board &board, tool::Selection selection, uint64_t interval_us,
               const std::string &last_id)
    : board_(board), selection_(std::move(selection)), interval_us_(interval_us),
      sent_us_(tool::monotonic_us()), told_generation_(board.generation())
{
    board.follow(interval_us);
    const std::string greeting = "retry: 2000\n\n";
    if (const auto change = change_of(last_id, board)) {
        cursor_ = fresh_until_ = *change;
        round_end_ = board.sequence();
        out_.put(greeting);
        return;
    }
    begin_anew();
    out_.put(last_id.empty() ? greeting : greeting + kReset);
}

Stream::~Stream()
{
    board_.unfollow(interval_us_);
}

void Stream::begin_anew()
{
    cursor_ = 0;
    round_end_ = fresh_until_ = board_.sequence();
    told_current_ = false;
}

std::size_t Stream::read(std::span<char> room)
{
    std::span<char> rest = out_.move_to(room);
    while (!rest.empty() && prepare_next())
        rest = out_.move_to(rest);
    const std::size_t size = room.size() - rest.size();
    if (size > 0)
        sent_us_ = tool::monotonic_us();
    return size;
}

bool Stream::has_more()
{
    return !out_.is_empty() || prepare_next();
}

bool Stream::prepare_next()
{
    if (cursor_ >= fresh_until_ && cursor_ < board_.forgotten()) {
        begin_anew();
        out_.put(std::string(kReset));
        return true;
    }
    return prepare_change() || prepare_notice() || (begin_round() && prepare_change());
}

bool Stream::prepare_change()
{
    while (cursor_ < round_end_) {
        const Board::Entry *entry = board_.next_after(cursor_);
        if (!entry || entry->sequence > round_end_) {
            cursor_ = round_end_; // the rest has changed again since, and comes in the next round
            return false;
        }
        cursor_ = entry->sequence;
        const bool is_news = !entry->is_gone || cursor_ > fresh_until_;
        if (is_news && covers(*entry)) {
            out_.put(board_.event_of(*entry));
            return true;
        }
    }
    return false;
}

bool Stream::prepare_notice()
{
    if (!std::exchange(told_current_, true)) {
        out_.put(std::string("event: current\ndata: {}\n\n"));
        return true;
    }
    if (std::exchange(told_generation_, board_.generation()) != board_.generation()) {
        out_.put("event: topics\ndata: {\"generation\":" + std::to_string(told_generation_) +
                 ",\"count\":" + std::to_string(board_.topics().size()) + "}\n\n");
        return true;
    }
    if (tool::monotonic_us() < sent_us_ + kSilenceUs)
        return false;
    out_.put(std::string(":\n\n"));
    return true;
}

// A round may begin a tenth of the interval early, so that a look that comes a little too soon is
// not wasted.
bool Stream::begin_round()
{
    const uint64_t now = tool::monotonic_us();
    if (board_.sequence() == cursor_ || now + interval_us_ / 10 < next_round_us_)
        return false;
    round_end_ = board_.sequence();
    next_round_us_ = now + interval_us_;
    return true;
}

bool Stream::covers(const Board::Entry &entry)
{
    if (std::exchange(numbering_, board_.numbering()) != board_.numbering()) {
        is_looked_at_.clear();
        covers_.clear();
    }
    if (entry.id >= covers_.size()) {
        is_looked_at_.resize(entry.id + 1);
        covers_.resize(entry.id + 1);
    }
    if (!is_looked_at_[entry.id]) {
        is_looked_at_[entry.id] = true;
        covers_[entry.id] = selection_.covers(entry.topic);
    }
    return covers_[entry.id];
}

} // namespace kp::web
