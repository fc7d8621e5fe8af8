#include "store/surveyor.h"

#include "common/clock.h"
#include "common/device/peer_json.h"
#include "common/doctor/checkup.h"
#include "common/values/row_json.h"

#include "layout/segment.h"
#include "store/mesh_metrics.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace kp::web {

namespace {

constexpr uint64_t kYoungUs = 2 * tool::kUsPerSecond;
constexpr uint64_t kTimesItTook = 20;

uint64_t young_for_us(const Survey &survey)
{
    return std::max(kYoungUs, kTimesItTook * survey.took_us);
}

std::string look_for_peers()
{
    std::string text;
    for (const tool::Endpoint &endpoint : tool::look_at_mesh().endpoints)
        text += tool::json_line(tool::peer_json(endpoint));
    return text;
}

// Reads the dictionary anew: the one that values are shown with belongs to another thread.
std::string look_as_doctor(const tool::DictionaryPlace &place)
{
    tool::LiveDictionary dictionary(place);
    (void)dictionary.refresh();
    std::string text;
    for (const tool::Finding &finding : tool::make_checkup(dictionary.take_problems()).findings)
        text += tool::json_line(tool::finding_json(finding));
    return text;
}

void look_for_mappers(Survey &survey)
{
    struct stat status {};
    if (stat(kStoreRoot, &status) != 0)
        return;
    survey.device = status.st_dev;
    survey.mappers = tool::find_mappers(status.st_dev);
    for (const auto &[file, mappers] : survey.mappers.of_file)
        for (const tool::Mapper &mapper : mappers)
            if (!survey.processes.contains(mapper.pid))
                survey.processes.emplace(mapper.pid, tool::process_of(mapper.pid));
}

void carry_out(Look look, const tool::DictionaryPlace &place, Survey &survey)
{
    switch (look) {
    case Look::peers:
        survey.text = look_for_peers();
        return;
    case Look::doctor:
        survey.text = look_as_doctor(place);
        return;
    case Look::mesh:
        survey.text = mesh_metrics(tool::look_at_mesh());
        return;
    case Look::mappers:
        look_for_mappers(survey);
        return;
    }
}

} // namespace

Surveyor::Surveyor(tool::DictionaryPlace dictionary)
    : dictionary_(std::move(dictionary)),
      thread_([this](const std::stop_token &stop) { work(stop); })
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
    if (newest && (!newest->is_done || now < newest->asked_us + young_for_us(*newest)))
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
        const uint64_t begin = tool::monotonic_us();
        carry_out(look, dictionary_, *survey);
        survey->took_us = tool::monotonic_us() - begin;
        survey->is_done = true;
        lock.lock();
    }
}

std::size_t SurveySource::read(std::span<char> room)
{
    if (!survey_->is_done)
        return 0;
    if (!std::exchange(is_taken_, true))
        if (std::string text = text_(*survey_); !text.empty())
            out_.put(std::move(text));
    return room.size() - out_.move_to(room).size();
}

} // namespace kp::web
