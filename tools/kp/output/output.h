// Standard output. What is printed is gathered and then written as a whole. It waits for a slow
// reader, but not longer than until a signal or the deadline ends the program. When its reader has
// gone away it reports no error.
#pragma once

#include <string>
#include <string_view>

namespace kp::tool {

class Output {
  public:
    void write(std::string_view text);
    void line(std::string_view text);
    // Writes what was gathered. False when nothing can be written any more: the reader is gone, or
    // it did not take everything before the end, or there is no room. To be called once for each
    // batch.
    bool flush();
    // The exit code: 5 after a failed write, 124 when the reader was too slow for the deadline,
    // else 0, also when the reader has closed its end.
    int code() const
    {
        return code_;
    }
    bool is_open() const
    {
        return open_;
    }

  private:
    void fail(int error);
    void give_up(int code);

    std::string pending_;
    bool open_ = true;
    int code_ = 0;
};

// Gives the program's standard output.
Output &output();

// Gives the exit code of a command that would end with `code`: another one after a signal to stop,
// or when nothing can be written any more.
int end_code(int code);

enum class ColorChoice { automatic, always, never };

// Chooses whether there are colours: only on a terminal, unless the choice, NO_COLOR or
// CLICOLOR_FORCE say something else.
void choose_colors(ColorChoice choice);

enum class Color { red, yellow, dim, bold };

// The text in a colour, or as it is.
bool uses_colors();
std::string colored(std::string_view text, Color color);

} // namespace kp::tool
