#include "answers/answers.h"

#include "base/log.h"
#include "common/names/pattern.h"
#include "common/text/text.h"
#include "names/topic_names.h"

#include <nlohmann/json.hpp>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace kp::mqtt {

namespace {

using Json = nlohmann::ordered_json;

std::string text_of(const std::string &command, const std::string &problem)
{
    Json answer{{"accepted", problem.empty()}, {"topic", command}};
    if (!problem.empty())
        answer["reason"] = problem;
    return answer.dump(-1, ' ', false, Json::error_handler_t::replace);
}

} // namespace

// What somebody wants to know of one command.
class Answers::Question {
  public:
    Question(std::shared_ptr<Answers> answers, const Message &command)
        : answers_(std::move(answers)), command_(command.topic), topic_(command.response_topic),
          correlation_(command.correlation)
    {
    }
    ~Question()
    {
        answer("it was dropped before it was written");
    }
    Question(const Question &) = delete;
    Question &operator=(const Question &) = delete;

    void answer(const std::string &problem)
    {
        const auto answers = std::exchange(answers_, {});
        if (!answers)
            return;
        Publication answer;
        answer.topic = topic_;
        answer.payload = text_of(command_, problem);
        answer.content_type = "application/json";
        answer.is_utf8 = true;
        answer.correlation = correlation_;
        answer.properties = {{property::kOrigin, answers->origin_}};
        answers->give(std::move(answer));
    }

  private:
    std::shared_ptr<Answers> answers_; // null once it is answered
    const std::string command_;
    const std::string topic_;
    const std::string correlation_;
};

std::shared_ptr<Answers> Answers::make(std::string origin, Counters &counters)
{
    return std::shared_ptr<Answers>(new Answers(std::move(origin), counters));
}

Answers::Answers(std::string origin, Counters &counters)
    : origin_(std::move(origin)), counters_(counters), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

std::string Answers::refusal_of(const Message &command, const InRule &rule) const
{
    const std::string &topic = command.response_topic;
    if (topic.starts_with('$') || !mqtt_topic_problem(topic).empty() ||
        !tool::Pattern(rule.answers, tool::Dialect::mqtt).covers(topic))
        return "which its rule does not allow";
    if (command.topic.size() + topic.size() > kMostTopicBytes)
        return "and the topics have more than " + std::to_string(kMostTopicBytes) + " bytes";
    if (command.correlation.size() > kMostCorrelationBytes)
        return "with correlation data of more than " + std::to_string(kMostCorrelationBytes) +
               " bytes";
    return {};
}

WhenDone Answers::listeners_for(const Message &command, const InRule &rule)
{
    if (command.response_topic.empty() || rule.answers.empty() || rule.shared)
        return {};
    std::string refusal = refusal_of(command, rule);
    const std::lock_guard lock(mutex_);
    if (refusal.empty() && open_ >= kMostOpen)
        refusal = "while " + std::to_string(kMostOpen) + " others wait";
    if (!refusal.empty()) {
        log_bounded(About::incoming,
                    "the message on " + tool::escaped(command.topic.substr(0, 200)) +
                        " gets no answer: it asks for one on " +
                        tool::escaped(command.response_topic.substr(0, 200)) + ", " + refusal);
        return {};
    }
    ++open_;
    const auto question = std::make_shared<Question>(shared_from_this(), command);
    return {[question](const std::string &problem) { question->answer(problem); }};
}

void Answers::give(Publication answer)
{
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(answer));
    const uint64_t one = 1;
    (void)!write(wake_.get(), &one, sizeof one);
}

std::optional<Publication> Answers::next()
{
    const std::lock_guard lock(mutex_);
    if (waiting_.empty()) {
        uint64_t count = 0;
        (void)!read(wake_.get(), &count, sizeof count);
        return {};
    }
    Publication answer = std::move(waiting_.front());
    waiting_.pop_front();
    return answer;
}

void Answers::put_back(Publication answer)
{
    const std::lock_guard lock(mutex_);
    waiting_.push_front(std::move(answer));
}

void Answers::sent(Publication answer, int id)
{
    if (id) {
        on_their_way_[id] = std::move(answer);
        return;
    }
    const std::lock_guard lock(mutex_);
    --open_;
}

void Answers::refused(const Publication &answer, const std::string &why)
{
    ++counters_.refused;
    log_bounded(About::outgoing, "the broker does not take the answer on " +
                                     tool::escaped(answer.topic) + ": " + why);
    const std::lock_guard lock(mutex_);
    --open_;
}

bool Answers::acknowledged(int id, const Answer &answer)
{
    const auto found = on_their_way_.find(id);
    if (found == on_their_way_.end())
        return false;
    const Publication publication = std::move(found->second);
    on_their_way_.erase(found);
    if (answer.is_refusal()) {
        refused(publication, answer.text);
        return true;
    }
    const std::lock_guard lock(mutex_);
    --open_;
    return true;
}

void Answers::connection_lost()
{
    for (auto &[id, answer] : std::exchange(on_their_way_, {}))
        put_back(std::move(answer));
}

} // namespace kp::mqtt
