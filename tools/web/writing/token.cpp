#include "writing/token.h"

#include "common/config/secret_file.h"

#include <algorithm>

namespace kp::web {

namespace {

bool is_visible(char c)
{
    return c > ' ' && c <= '~';
}

} // namespace

tool::Result<Token> Token::read(const std::string &path)
{
    using Read = tool::Result<Token>;
    auto text = tool::read_secret_file(path);
    if (!text)
        return Read::failed(std::move(text.problem));
    std::string &token = *text.value;
    while (token.ends_with('\n') || token.ends_with('\r'))
        token.pop_back();
    if (token.size() < kLeastBytes || token.size() > kMostBytes ||
        !std::all_of(token.begin(), token.end(), is_visible))
        return Read::failed(path + ": a token is one line of " + std::to_string(kLeastBytes) +
                            " to " + std::to_string(kMostBytes) + " visible ASCII characters");
    return Read::of(Token(token));
}

Token::Token(std::string_view text) : size_(text.size())
{
    std::copy(text.begin(), text.end(), bytes_.begin());
}

// It looks at all bytes, also behind the end of both, and decides nothing before the last one.
bool Token::is(std::string_view text) const
{
    std::array<char, kMostBytes> other{};
    std::copy_n(text.begin(), std::min(text.size(), kMostBytes), other.begin());
    std::size_t difference = text.size() ^ size_;
    for (std::size_t at = 0; at < kMostBytes; ++at)
        difference |= static_cast<unsigned char>(bytes_[at] ^ other[at]);
    return difference == 0;
}

} // namespace kp::web
