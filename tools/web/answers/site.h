// Answers requests: one function for each address of the interface, see kp-web(1).
#pragma once

#include "answers/pages.h"
#include "answers/writes.h"
#include "config/configuration.h"
#include "http/answer.h"
#include "http/request.h"
#include "store/board.h"
#include "store/surveyor.h"

#include <map>

namespace kp::web {

// Counts what the program tells of itself.
struct Counters {
    unsigned connections = 0; // that are open
    uint64_t turned_away = 0; // connections, since there were too many
    uint64_t requests = 0;    // since the start
    uint64_t refused = 0;     // requests that were answered with an error
};

class Site {
  public:
    // What is given must outlive the site.
    Site(const Configuration &configuration, Board &board, const Counters &counters);

    // Says why a request is refused, before its body is sent; nothing when it is not.
    std::optional<Answer> refusal(const Request &request) const;
    Answer answer(const Request &request);

    // Logs what could not be read, each once.
    void tell_problems();

  private:
    Answer list(const Request &request, bool with_values);
    Answer one(const std::string &topic);
    Answer mappers(const Request &request);
    Answer watch(const Request &request);
    Answer metrics();
    Answer survey(Look look);
    Answer page(const std::string &path) const;
    // Gives what a request selects with `q` and `x`, or what is wrong with it.
    tool::Result<tool::Selection> selection_of(const Target &target) const;

    const Configuration &configuration_;
    Board &board_;
    const Counters &counters_;
    const Pages pages_;
    Writes writes_;
    Surveyor surveyor_;
};

} // namespace kp::web
