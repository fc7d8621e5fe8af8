#include "common/config/toml_text.h"

#include <algorithm>
#include <array>
#include <string>

namespace kp::tool {

namespace {

// Each dot of a key may be a table within a table, and the parser's tables end in a recursion, for
// which thousands of them have no room on the stack. It counts brackets alone, up to 256 of them.
constexpr std::size_t kMostDots = 50; // of a line

constexpr std::array<bool, 256> kIsLookedAt = [] {
    std::array<bool, 256> is_looked_at{};
    for (std::size_t byte = 0; byte < is_looked_at.size(); ++byte)
        is_looked_at[byte] = byte >= 0x80 || byte == '\n' || byte == '.' || byte == '#' ||
                             byte == '"' || byte == '\'';
    return is_looked_at;
}();

// Goes through a text as TOML does, as far as quotation marks and comments are concerned.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text)
    {
    }

    // Moves to the first byte outside quotation marks and comments that must not get to the parser,
    // and says why; null without one.
    const char *find_problem()
    {
        std::size_t dots = 0; // of the line
        while (skip_plain()) {
            const char byte = text_[at_];
            if (static_cast<unsigned char>(byte) >= 0x80)
                return "a letter beyond ASCII must stand in quotation marks";
            dots = byte == '\n' ? 0 : dots + (byte == '.' ? 1 : 0);
            if (dots > kMostDots)
                return "more than 50 dots outside quotation marks in a line";
            if (byte == '#')
                at_ = std::min(text_.find('\n', at_), text_.size());
            else if (byte == '"' || byte == '\'')
                skip_string(byte);
            else
                ++at_;
        }
        return nullptr;
    }

    toml::source_position position() const
    {
        toml::source_position position{1, 1};
        for (const char byte : text_.substr(0, at_)) {
            const bool continues = (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
            position.column = byte == '\n' ? 1 : position.column + (continues ? 0 : 1);
            position.line += byte == '\n' ? 1 : 0;
        }
        return position;
    }

  private:
    // Moves to the next byte that find_problem() has to look at. False at the end.
    bool skip_plain()
    {
        while (at_ < text_.size() && !kIsLookedAt[static_cast<unsigned char>(text_[at_])])
            ++at_;
        return at_ < text_.size();
    }

    // One that does not end in its line stops there, as it does in the parser, which refuses it.
    void skip_string(char mark)
    {
        if (marks_at(mark) < 3)
            return skip_line_string(mark);
        at_ += 3;
        while (at_ < text_.size() && marks_at(mark) < 3)
            at_ += mark == '"' && text_[at_] == '\\' ? 2 : 1;
        at_ = std::min(at_ + 3, text_.size());
        for (int more = 0; more < 2 && marks_at(mark) > 0; ++more)
            ++at_; // a long string may end in quotation marks of its own
    }

    // How many of these marks, of at most three, come next.
    std::size_t marks_at(char mark) const
    {
        std::size_t count = 0;
        while (count < 3 && at_ + count < text_.size() && text_[at_ + count] == mark)
            ++count;
        return count;
    }

    void skip_line_string(char mark)
    {
        ++at_;
        while (at_ < text_.size() && text_[at_] != mark && text_[at_] != '\n')
            at_ += mark == '"' && text_[at_] == '\\' ? 2 : 1;
        if (at_ < text_.size() && text_[at_] == '\n')
            return;
        at_ = std::min(at_ + 1, text_.size());
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

} // namespace

toml::table parse_toml(std::string_view text)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    Scanner scanner(text.substr(text.starts_with(kByteOrderMark) ? kByteOrderMark.size() : 0));
    const char *problem = scanner.find_problem();
    if (!problem)
        return toml::parse(text);
    const toml::source_position position = scanner.position();
    throw toml::parse_error(problem, toml::source_region{position, position, nullptr});
}

} // namespace kp::tool
