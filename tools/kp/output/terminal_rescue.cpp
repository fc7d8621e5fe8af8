#include "output/terminal_rescue.h"

#include "common/store/fault_guard.h"

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

// The last one: it takes common words for its macros.
#include <curses.h>
#include <term.h>

namespace kp::tool {

namespace {

constexpr std::array kCrashes = {SIGSEGV, SIGABRT, SIGFPE, SIGILL, SIGSYS, SIGTRAP};

// All that the handler needs, kept before anything can go wrong.
termios modes_before;
bool has_modes = false;
std::array<char, 256> farewell;
std::size_t farewell_size = 0;
std::array<struct sigaction, kCrashes.size()> actions_before;
std::array<char, 65536> handler_stack; // the program's own may be used up

int keep_character(int character)
{
    if (farewell_size < farewell.size())
        farewell[farewell_size++] = static_cast<char>(character);
    return character;
}

// Adds one of the terminal's own strings; false when it has none such.
bool keep_string(const char *capability)
{
    const char *text = tigetstr(capability);
    if (!text || reinterpret_cast<intptr_t>(text) == -1)
        return false;
    (void)tputs(text, 1, keep_character);
    return true;
}

// Plain attributes, keys as they were, the cursor, and what was on the screen before; where the
// terminal has not kept that, an empty screen.
void keep_farewell()
{
    farewell_size = 0;
    (void)keep_string("sgr0");
    (void)keep_string("rmkx");
    (void)keep_string("cnorm");
    if (!keep_string("rmcup"))
        (void)keep_string("clear");
}

// Calls nothing but what a handler may call. What the terminal has not taken yet is thrown away,
// since one that was stopped, or that nobody reads, would never take the farewell.
void restore_terminal()
{
    sigset_t stops;
    sigset_t before;
    (void)sigemptyset(&stops);
    (void)sigaddset(&stops, SIGTTOU); // which would stop it in the background
    (void)sigprocmask(SIG_BLOCK, &stops, &before);
    (void)tcflow(STDOUT_FILENO, TCOON);
    (void)tcflush(STDOUT_FILENO, TCOFLUSH);
    pollfd room{STDOUT_FILENO, POLLOUT, 0};
    if (poll(&room, 1, 0) == 1)
        (void)!write(STDOUT_FILENO, farewell.data(), farewell_size);
    if (has_modes)
        (void)tcsetattr(STDOUT_FILENO, TCSANOW, &modes_before);
    (void)sigprocmask(SIG_SETMASK, &before, nullptr);
}

void die_restored(int number)
{
    restore_terminal();
    for (std::size_t index = 0; index < kCrashes.size(); ++index)
        if (kCrashes[index] == number)
            (void)sigaction(number, &actions_before[index], nullptr);
    (void)raise(number); // comes when this handler returns
}

bool use_handler_stack()
{
    stack_t now{};
    if (sigaltstack(nullptr, &now) != 0 || !(now.ss_flags & SS_DISABLE))
        return false; // a sanitizer has its own
    stack_t own{};
    own.ss_sp = handler_stack.data();
    own.ss_size = handler_stack.size();
    return sigaltstack(&own, nullptr) == 0;
}

} // namespace

TerminalRescue::TerminalRescue()
{
    has_modes = tcgetattr(STDOUT_FILENO, &modes_before) == 0;
}

void TerminalRescue::arm()
{
    keep_farewell();
    has_stack_ = use_handler_stack();
    before_fatal_bus_error = restore_terminal;
    struct sigaction action {};
    action.sa_handler = die_restored;
    action.sa_flags = SA_ONSTACK;
    for (std::size_t index = 0; index < kCrashes.size(); ++index)
        (void)sigaction(kCrashes[index], &action, &actions_before[index]);
    is_armed_ = true;
}

void TerminalRescue::restore() const
{
    if (is_armed_)
        restore_terminal();
}

TerminalRescue::~TerminalRescue()
{
    if (!is_armed_)
        return;
    before_fatal_bus_error = nullptr;
    for (std::size_t index = 0; index < kCrashes.size(); ++index)
        (void)sigaction(kCrashes[index], &actions_before[index], nullptr);
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    if (has_stack_)
        (void)sigaltstack(&none, nullptr);
}

} // namespace kp::tool
