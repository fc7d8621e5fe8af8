// Uses the whole terminal through ncurses, and leaves it afterwards as it was.
#pragma once

#include "output/screen_output.h"
#include "output/terminal_rescue.h"

#include <string>
#include <string_view>

namespace kp::tool {

enum class Style { plain, title, reverse, bad, warning, faint };

enum class Key {
    none,
    up,
    down,
    page_up,
    page_down,
    first,
    last,
    escape,
    quit,
    enter,
    backspace,
    resized,
    character, // see Input::character
};

struct Input {
    Key key = Key::none;
    char character = 0;
};

class Screen {
  public:
    explicit Screen(bool colors);
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;
    // Leaves the terminal as it was found, also when the program crashes before, or a signal ends
    // it.
    ~Screen();

    // False when the terminal cannot do it.
    bool is_ready() const
    {
        return screen_ != nullptr;
    }
    int rows() const;
    int columns() const;

    void clear();
    // Shows one row, cut at the right edge.
    void put(int row, std::string_view text, Style style = Style::plain);
    void show();
    // Gives the next key that was pressed, without waiting for one.
    Input next_input();

  private:
    TerminalRescue rescue_; // outlives the full-screen use
    ScreenOutput output_;
    void *screen_;
    bool has_colors_ = false;
};

} // namespace kp::tool
