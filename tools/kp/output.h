// Standard output: gathered, written whole, and quiet when its reader has gone away.
#pragma once

#include <string>
#include <string_view>

namespace kp::tool {

class Output {
  public:
    void write(std::string_view text);
    void line(std::string_view text);
    // What was gathered reaches the reader now. False when nothing can be written any more: the
    // reader is gone, or there is no room. Called once for each batch.
    bool flush();
    // The code to end with: 0 also when the reader closed its end, 5 after a failed write.
    int code() const
    {
        return code_;
    }
    bool is_open() const
    {
        return open_;
    }

  private:
    std::string pending_;
    bool open_ = true;
    int code_ = 0;
};

// The one of the program.
Output &output();

enum class ColorChoice { automatic, always, never };

// Colours only on a terminal, unless the choice, NO_COLOR or CLICOLOR_FORCE say otherwise.
void choose_colors(ColorChoice choice);

enum class Color { red, yellow, dim, bold };

// The text in a colour, or as it is.
bool uses_colors();
std::string colored(std::string_view text, Color color);

} // namespace kp::tool
