#include "store/surveyor.h"

#include "common/clock.h"
#include "common/device/peer_json.h"
#include "common/doctor/finding.h"
#include "common/row_json.h"

#include <algorithm>

namespace kp::web {

namespace {

constexpr uint64_t kYoungUs = 2 * tool::kUsPerSecond;

std::string look_for_peers()
{
    std::string text;
    for (const tool::Endpoint &endpoint : tool::look_at_mesh().endpoints)
        text += tool::json_line(tool::peer_json(endpoint));
    return text;
}

// The gravest first.
std::string look_as_doctor()
{
    tool::Findings findings;
    tool::check_system(findings);
    (void)tool::check_mesh(findings);
    (void)tool::check_store(findings);
    std::stable_sort(
        findings.begin(), findings.end(),
        [](const tool::Finding &a, const tool::Finding &b) { return a.severity > b.severity; });
    std::string text;
    for (const tool::Finding &finding : findings)
        text += tool::json_line(tool::finding_json(finding));
    return text;
}

} // namespace

Surveyor::Surveyor() : thread_([this](const std::stop_token &stop) { work(stop); })
{
}

Surveyor::~Surveyor()
{
    thread_.request_stop();
    changed_.notify_all();
}

std::shared_ptr<const Survey> Surveyor::ask(Look look)
{
    const uint64_t now = tool::monotonic_us();
    std::shared_ptr<Survey> &newest = newest_[look];
    if (newest && (!newest->is_done || now < newest->asked_us + kYoungUs))
        return newest;
    newest = std::make_shared<Survey>();
    newest->asked_us = now;
    const std::lock_guard lock(mutex_);
    waiting_.emplace_back(look, newest);
    changed_.notify_all();
    return newest;
}

void Surveyor::work(const std::stop_token &stop)
{
    std::unique_lock lock(mutex_);
    while (changed_.wait(lock, stop, [this] { return !waiting_.empty(); })) {
        const auto [look, survey] = waiting_.back();
        waiting_.pop_back();
        lock.unlock();
        survey->text = look == Look::peers ? look_for_peers() : look_as_doctor();
        survey->is_done = true;
        lock.lock();
    }
}

std::size_t SurveySource::read(std::span<char> room)
{
    if (!survey_->is_done)
        return 0;
    if (!std::exchange(is_taken_, true) && !survey_->text.empty())
        out_.put(std::shared_ptr<const std::string>(survey_, &survey_->text));
    return room.size() - out_.move_to(room).size();
}

} // namespace kp::web
