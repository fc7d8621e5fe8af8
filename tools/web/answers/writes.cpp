#include "answers/writes.h"

#include "answers/failures.h"
#include "common/names/pattern.h"
#include "common/text/text.h"
#include "common/writing/meant_write.h"
#include "store/row_line.h"

#include <nlohmann/json.hpp>
#include <strings.h>

namespace kp::web {

namespace {

constexpr std::string_view kJson = "application/json";

// Gives the topic as it stands in the address.
std::string spelling_of(const Request &request)
{
    return request.target.path.substr(kTagsPath.size());
}

bool is_json(std::string_view type)
{
    type = type.substr(0, type.find(';'));
    while (type.ends_with(' '))
        type.remove_suffix(1);
    return type.size() == kJson.size() && strncasecmp(type.data(), kJson.data(), type.size()) == 0;
}

// `error` is what the header says beside the name of the realm, as RFC 6750 has it.
Answer challenge(unsigned status, const std::string &why, const std::string &error)
{
    Answer answer = failure(status, why);
    answer.headers.emplace_back("WWW-Authenticate", "Bearer realm=\"kp-web\"" + error);
    return answer;
}

std::optional<Answer> token_refusal(Verdict verdict, const std::string &topic)
{
    switch (verdict) {
    case Verdict::no_token:
        return challenge(401, "a write needs the header \"Authorization: Bearer TOKEN\"", "");
    case Verdict::unknown_token:
        return challenge(401, "no rule has this token", ", error=\"invalid_token\"");
    case Verdict::other_topics:
        return challenge(403, tool::escaped(topic) + ": this token is for other topics",
                         ", error=\"insufficient_scope\"");
    case Verdict::may_write:
        break;
    }
    return std::nullopt;
}

std::optional<Answer> body_refusal(const Request &request)
{
    if (!is_json(request.content_type) || !request.content_encoding.empty())
        return failure(415, "the body must be application/json, not encoded");
    if (request.body_bytes > kMostBodyBytes)
        return failure(413, "the body has more than " + std::to_string(kMostBodyBytes) + " bytes");
    return std::nullopt;
}

// Gives the status for a request that was understood, but that the store does not take.
unsigned status_of_write(const tool::Problem &problem)
{
    return problem.kind == tool::kUsage     ? 422
           : problem.kind == tool::kInvalid ? 409
           : problem.kind == tool::kLimit   ? 507
                                            : status_of(problem);
}

} // namespace

Writes::Writes(const Configuration &configuration, Board &board)
    : configuration_(configuration), board_(board),
      announcer_(configuration.write.empty() ? nullptr : std::make_unique<Announcer>())
{
}

std::optional<Answer> Writes::refusal(const Request &request) const
{
    tool::Problem problem;
    const auto topic = tool::normal_topic(spelling_of(request), problem);
    const Verdict found = verdict(configuration_.write, request.authorization, topic.value_or(""));
    if (!topic && found == Verdict::other_topics)
        return failure(400, problem.text);
    if (auto refused = token_refusal(found, topic.value_or("")))
        return refused;
    if (tool::is_pattern(*topic))
        return failure(400, tool::escaped(*topic) + " is a pattern; a value has one topic");
    if (!board_.shows(*topic))
        return failure(404, tool::escaped(*topic) + ": no such topic");
    return body_refusal(request);
}

Answer Writes::put(const Request &request)
{
    tool::Problem problem;
    const std::string spelling = spelling_of(request);
    const std::string topic = tool::normal_topic(spelling, problem).value_or("");
    auto record = tool::parse_record_of(topic, request.body, tool::ByteStyle::hex, problem);
    if (!record)
        return failure(400, problem.text);
    if (const std::string obstacle = announcer_->obstacle(); !obstacle.empty())
        return failure(503, obstacle);
    board_.refresh();
    record->write.remedies.new_topic = "say its \"type\"";
    const auto target =
        tool::store_meant_record(*record, board_.dictionary().facts_of(topic), problem);
    if (!target)
        return failure(status_of_write(problem), problem.text);
    announcer_->tell({topic, spelling, target->is_new});
    ++count_;
    tool::TopicOpener opener;
    auto snapshot = tool::read_topic(opener, topic, problem);
    if (!snapshot)
        return failure(status_of(problem), problem.text);
    return {target->is_new ? 201U : 200U, "application/json",
            row_line({topic, std::move(*snapshot)}, board_.dictionary())};
}

std::vector<std::string> Writes::take_problems()
{
    return announcer_ ? announcer_->take_problems() : std::vector<std::string>();
}

} // namespace kp::web
