#include "answers/site.h"

#include "answers/failures.h"
#include "answers/metrics.h"
#include "common/text/parse_number.h"
#include "common/text/text.h"
#include "store/listing.h"
#include "store/mappers_line.h"
#include "store/row_line.h"
#include "store/stream.h"

#include <cstdio>

namespace kp::web {

namespace {

constexpr const char *kJsonLines = "application/x-ndjson";
constexpr double kUsualRate = 10;

Answer not_allowed(const char *methods, const char *why = "this address takes other methods")
{
    Answer answer = failure(405, why);
    answer.headers.emplace_back("Allow", methods);
    return answer;
}

// Gives how many updates a second a client wants, within what is allowed; nothing when it is no
// number.
std::optional<double> rate_of(const Target &target, double most)
{
    const std::string *text = target.last("rate");
    if (!text)
        return std::min(kUsualRate, most);
    const auto rate = tool::parse_number<double>(*text);
    if (!rate || !(*rate >= 0.01))
        return std::nullopt;
    return std::min(*rate, most);
}

} // namespace

Site::Site(const Configuration &configuration, Board &board, const Counters &counters)
    : configuration_(configuration), board_(board), counters_(counters),
      pages_(configuration.page, configuration.drawing), writes_(configuration, board),
      surveyor_(tool::dictionary_place(configuration.dictionary))
{
}

std::optional<Answer> Site::refusal(const Request &request) const
{
    const bool is_tag = request.target.path.starts_with(kTagsPath);
    if (request.method == "PUT" && is_tag && writes_.are_allowed())
        return writes_.refusal(request);
    if (request.method == "PUT" && is_tag)
        return not_allowed("GET, HEAD", "kp-web only reads here: its configuration has no rule "
                                        "[[write]], see kp-web.conf(5)");
    if (request.method != "GET" && request.method != "HEAD")
        return not_allowed(is_tag && writes_.are_allowed() ? "GET, HEAD, PUT" : "GET, HEAD");
    return std::nullopt;
}

Answer Site::answer(const Request &request)
{
    const std::string &path = request.target.path;
    if (request.method == "PUT")
        return writes_.put(request);
    if (path == "/healthz")
        return {200, "text/plain; charset=utf-8", "ok\n"};
    if (path == "/tags")
        return list(request, true);
    if (path == "/topics")
        return list(request, false);
    if (path == "/mappers")
        return mappers(request);
    if (path == "/watch")
        return watch(request);
    if (path == "/metrics")
        return metrics();
    if (path.starts_with(kTagsPath))
        return one(path.substr(kTagsPath.size()));
    if (path == "/peers")
        return survey(Look::peers);
    if (path == "/doctor")
        return survey(Look::doctor);
    return page(path);
}

tool::Result<tool::Selection> Site::selection_of(const Target &target) const
{
    using Found = tool::Result<tool::Selection>;
    const std::vector<std::string> wanted = target.all("q");
    const std::vector<std::string> excluded = target.all("x");
    if (wanted.size() + excluded.size() > configuration_.limits.topics)
        return Found::failed("more than " + std::to_string(configuration_.limits.topics) +
                             " topics and patterns");
    tool::Selection selection;
    tool::Problem problem;
    if (!selection.set(wanted, excluded, problem))
        return Found::failed(problem.text);
    return Found::of(std::move(selection));
}

Answer Site::list(const Request &request, bool with_values)
{
    auto selection = selection_of(request.target);
    if (!selection)
        return failure(400, selection.problem);
    board_.refresh();
    const Board &board = board_;
    const auto with_value = [&board](const tool::LiveTopic &live) {
        auto snapshot = live.reader.read();
        return snapshot ? row_line({live.topic, std::move(*snapshot)}, board.dictionary()) : "";
    };
    const auto without = [&board](const tool::LiveTopic &live) {
        return facts_line(live.topic, board.dictionary());
    };
    Answer answer{200, kJsonLines};
    answer.source = std::make_unique<Listing>(board_, std::move(*selection.value),
                                              with_values ? Listing::Line(with_value) : without);
    return answer;
}

Answer Site::one(const std::string &text)
{
    tool::Problem problem;
    const auto topic = tool::normal_topic(text, problem);
    if (!topic)
        return failure(400, problem.text);
    if (!board_.shows(*topic))
        return failure(404, tool::escaped(*topic) + ": no such topic");
    tool::TopicOpener opener;
    auto snapshot = tool::read_topic(opener, *topic, problem);
    if (!snapshot)
        return failure(status_of(problem), problem.text);
    board_.refresh();
    return {200, "application/json", row_line({*topic, std::move(*snapshot)}, board_.dictionary())};
}

Answer Site::mappers(const Request &request)
{
    auto selection = selection_of(request.target);
    if (!selection)
        return failure(400, selection.problem);
    board_.refresh();
    auto survey = surveyor_.ask(Look::mappers);
    const auto line = [survey](const tool::LiveTopic &live) {
        return mappers_line(live.topic, live.reader.inode(), *survey);
    };
    Answer answer{200, kJsonLines};
    answer.source = std::make_unique<AfterSurvey>(
        survey, std::make_unique<Listing>(board_, std::move(*selection.value), line));
    return answer;
}

Answer Site::watch(const Request &request)
{
    auto selection = selection_of(request.target);
    if (!selection)
        return failure(400, selection.problem);
    const auto rate = rate_of(request.target, configuration_.rate);
    if (!rate)
        return failure(400, "rate must be a number of updates a second");
    board_.look();
    const auto interval_us = static_cast<uint64_t>(1e6 / *rate);
    Answer answer{200, "text/event-stream"};
    answer.headers.emplace_back("X-Accel-Buffering", "no"); // a proxy must not hold events back
    answer.source = std::make_unique<Stream>(board_, std::move(*selection.value), interval_us,
                                             request.last_event_id);
    return answer;
}

Answer Site::metrics()
{
    board_.refresh();
    Answer answer{200, kMetricsType};
    const std::string head =
        metrics_text(configuration_.metrics, board_, counters_, writes_.count());
    answer.source =
        std::make_unique<SurveySource>(surveyor_.ask(Look::mesh), [head](const Survey &survey) {
            return head + survey.text + "# EOF\n";
        });
    return answer;
}

Answer Site::survey(Look look)
{
    Answer answer{200, kJsonLines};
    answer.source = std::make_unique<SurveySource>(
        surveyor_.ask(look), [](const Survey &survey) { return survey.text; });
    return answer;
}

Answer Site::page(const std::string &path) const
{
    Answer answer;
    if (const std::string *file = pages_.find(path, answer.type)) {
        answer.body = *file;
        return answer;
    }
    return failure(404, path == "/" ? "the files of the page are not in " + configuration_.page
                                    : "there is nothing at this address");
}

void Site::tell_problems()
{
    for (const auto &lines : {board_.take_problems(), writes_.take_problems()})
        for (const std::string &line : lines)
            (void)std::fprintf(stderr, "kp-web: warning: %s\n", line.c_str());
}

} // namespace kp::web
