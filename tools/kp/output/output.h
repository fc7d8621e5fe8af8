// Standard output: gathered, written whole, and quiet when its reader has gone away. It waits for a slow
// reader without being deaf to what ends the program: the signals and the deadline.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

namespace kp::tool {

class Output {
  public:
    void write(std::string_view text);
    void line(std::string_view text);
    // What was gathered reaches the reader now. False when nothing can be written any more: the
    // reader is gone or did not take it before the end, or there is no room. Called once for each
    // batch.
    bool flush();
    // From this monotonic time on nothing waits for the reader.
    void set_deadline(uint64_t monotonic_us)
    {
        deadline_ = monotonic_us;
    }
    // The code to end with: 0 also when the reader closed its end, 5 after a failed write, 124 when
    // the reader was too slow for the deadline.
    int code() const
    {
        return code_;
    }
    bool is_open() const
    {
        return open_;
    }

  private:
    bool await_reader();
    void give_up(int code);

    std::string pending_;
    uint64_t deadline_ = std::numeric_limits<uint64_t>::max();
    bool open_ = true;
    int code_ = 0;
};

// The one of the program.
Output &output();

// What a command ended by a signal, by its closed output or normally returns.
int end_code(int code);

enum class ColorChoice { automatic, always, never };

// Colours only on a terminal, unless the choice, NO_COLOR or CLICOLOR_FORCE say otherwise.
void choose_colors(ColorChoice choice);

enum class Color { red, yellow, dim, bold };

// The text in a colour, or as it is.
bool uses_colors();
std::string colored(std::string_view text, Color color);

} // namespace kp::tool
