// Answers to commands. Who sends one with a response topic hears there whether it was carried out:
// {"accepted":true,"topic":"..."}, or with false and a "reason". The answer is given where it is
// known, by the thread that writes to the store too, and sent by the bridge's own thread.
#pragma once

#include "base/counters.h"
#include "base/when_done.h"
#include "config/configuration.h"
#include "layout/unique_fd.h"
#include "messages/message.h"

#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace kp::mqtt {

class Answers : public std::enable_shared_from_this<Answers> {
  public:
    // Whoever asks more at once gets no answer.
    static constexpr size_t kMostOpen = 1000;
    static constexpr size_t kMostCorrelationBytes = 1024;
    static constexpr size_t kMostTopicBytes = 2000; // of the command and the answer together

    // `counters` must outlive every question.
    static std::shared_ptr<Answers> make(std::string origin, Counters &counters);

    // Who is to be told what becomes of a command, so that its sender hears of it: nobody where the
    // sender does not ask, or may not. What is told first counts; where nothing is told until the
    // result is dropped, the sender hears that.
    WhenDone listeners_for(const Message &command, const InRule &rule);

    // The next answer to send. One that cannot be sent now is put back.
    std::optional<Publication> next();
    void put_back(Publication answer);
    // Readable when a thread has answered since next() gave nothing.
    int fd() const
    {
        return wake_.get();
    }

    // `id` is 0 where nobody acknowledges it.
    void sent(Publication answer, int id);
    void refused(const Publication &answer, const std::string &why);
    // Returns whether the acknowledgement is for an answer.
    bool acknowledged(int id, const Answer &answer);
    // What the broker has not acknowledged goes again on the next connection.
    void connection_lost();

  private:
    class Question;
    Answers(std::string origin, Counters &counters);
    std::string refusal_of(const Message &command, const InRule &rule) const;
    void give(Publication answer);

    const std::string origin_;
    Counters &counters_;
    const UniqueFd wake_;
    mutable std::mutex mutex_;
    size_t open_ = 0; // questions and answers that the broker does not have
    std::deque<Publication> waiting_;
    std::unordered_map<int, Publication> on_their_way_; // the bridge's own thread's
};

} // namespace kp::mqtt
