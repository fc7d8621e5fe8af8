// The answer to a request, whose body is a text or is made while it is sent.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kp::web {

// A body that is made piece by piece, when the socket has room, so that a client that does not read
// costs no memory.
class Source {
  public:
    Source() = default;
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;
    virtual ~Source() = default;

    // Writes what is next into the room and gives the number of bytes. 0 means that nothing is to
    // be sent now.
    virtual std::size_t read(std::span<char> room) = 0;
    // Says whether all has been read.
    virtual bool is_at_end() const = 0;
    // Says, after a read that gave nothing, whether the next one would give something.
    virtual bool has_more() = 0;
};

struct Answer {
    unsigned status = 200;
    std::string type = "text/plain; charset=utf-8";
    std::string body = {};
    std::unique_ptr<Source> source = nullptr; // gives the body, if it is not null
    std::vector<std::pair<std::string, std::string>> headers = {};
};

// Gives an answer with the body {"error": "..."}.
Answer failure(unsigned status, const std::string &why);

// A text of which a part may have been sent.
class Outflow {
  public:
    bool is_empty() const
    {
        return !text_;
    }
    void put(std::shared_ptr<const std::string> text)
    {
        text_ = std::move(text);
        sent_ = 0;
    }
    void put(std::string text)
    {
        put(std::make_shared<const std::string>(std::move(text)));
    }
    // Moves as much as fits into the room, and gives the rest of the room.
    std::span<char> move_to(std::span<char> room);

  private:
    std::shared_ptr<const std::string> text_;
    std::size_t sent_ = 0;
};

} // namespace kp::web
