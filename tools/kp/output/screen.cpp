#include "output/screen.h"

#include "common/text/text.h"
#include "running/stop.h"

#define NCURSES_NOMACROS
#define NCURSES_WIDECHAR 1
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <curses.h>
#include <termios.h>
#include <unistd.h>

namespace kp::tool {

namespace {

constexpr short kRedPair = 1;
constexpr short kYellowPair = 2;

attr_t attributes(Style style, bool colors)
{
    switch (style) {
    case Style::title:
        return A_BOLD;
    case Style::reverse:
        return A_REVERSE;
    case Style::bad:
        return colors ? static_cast<attr_t>(COLOR_PAIR(kRedPair)) | A_BOLD : A_BOLD;
    case Style::warning:
        return colors ? static_cast<attr_t>(COLOR_PAIR(kYellowPair)) : A_UNDERLINE;
    case Style::faint:
        return A_DIM;
    default:
        return A_NORMAL;
    }
}

} // namespace

Screen::Screen(bool colors)
    : screen_(output_.file() ? newterm(nullptr, output_.file(), stdin) : nullptr)
{
    if (!screen_)
        return;
    rescue_.arm();
    (void)cbreak();
    (void)noecho();
    (void)nodelay(stdscr, true);
    (void)keypad(stdscr, true);
    (void)curs_set(0);
    (void)set_escdelay(25);
    if (!colors || !::has_colors())
        return;
    has_colors_ = start_color() == OK && use_default_colors() == OK;
    (void)init_pair(kRedPair, COLOR_RED, -1);
    (void)init_pair(kYellowPair, COLOR_YELLOW, -1);
}

Screen::~Screen()
{
    if (!screen_)
        return;
    (void)tcflow(STDOUT_FILENO, TCOON); // a terminal stopped by ^S would hold up the end
    (void)endwin();
    delscreen(static_cast<SCREEN *>(screen_));
    if (stop_signal() != 0) // what endwin wrote did not arrive
        rescue_.restore();
}

int Screen::rows() const
{
    return getmaxy(stdscr);
}

int Screen::columns() const
{
    return getmaxx(stdscr);
}

void Screen::clear()
{
    (void)erase();
}

void Screen::put(int row, std::string_view text, Style style)
{
    const auto width = static_cast<std::size_t>(columns());
    const std::string line = padded(shortened(text, width), width);
    (void)attrset(static_cast<int>(attributes(style, has_colors_)));
    (void)mvaddnstr(row, 0, line.c_str(), static_cast<int>(line.size()));
    (void)attrset(static_cast<int>(A_NORMAL));
}

void Screen::show()
{
    (void)refresh();
}

Input Screen::next_input()
{
    const int code = getch();
    switch (code) {
    case ERR:
        return {};
    case KEY_UP:
        return {Key::up, 0};
    case KEY_DOWN:
        return {Key::down, 0};
    case KEY_PPAGE:
        return {Key::page_up, 0};
    case KEY_NPAGE:
        return {Key::page_down, 0};
    case KEY_HOME:
        return {Key::first, 0};
    case KEY_END:
        return {Key::last, 0};
    case KEY_RESIZE:
        return {Key::resized, 0};
    case KEY_BACKSPACE:
    case 127:
    case 8:
        return {Key::backspace, 0};
    case KEY_ENTER:
    case '\n':
    case '\r':
        return {Key::enter, 0};
    case 27:
        return {Key::escape, 0};
    case KEY_F0 + 10:
        return {Key::quit, 0};
    default:
        return {Key::character, code >= 32 && code < 127 ? static_cast<char>(code) : '\0'};
    }
}

} // namespace kp::tool
