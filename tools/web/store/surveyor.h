// Takes the looks that go through all processes and so take their time. A thread of their own takes
// them, so that nobody who follows values waits for them. All who ask within two seconds share a
// look, or within twenty times what it has taken, so that no client can keep more than a twentieth
// of a processor busy with each kind.
#pragma once

#include "common/dictionary/live_dictionary.h"
#include "common/system/processes.h"
#include "http/answer.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kp::web {

enum class Look {
    peers,   // as lines of JSON
    doctor,  // the same
    mesh,    // as metrics
    mappers, // who has which file of the store open
};

// What a look found. Before it is done only `is_done` and `asked_us` may be read.
struct Survey {
    std::atomic<bool> is_done = false;
    uint64_t asked_us = 0;
    uint64_t took_us = 0;
    std::string text;
    dev_t device = 0; // of the store
    tool::Mappers mappers;
    std::map<pid_t, tool::Process> processes; // that map a file of the store
};

class Surveyor {
  public:
    explicit Surveyor(tool::DictionaryPlace dictionary);
    Surveyor(const Surveyor &) = delete;
    Surveyor &operator=(const Surveyor &) = delete;
    ~Surveyor();

    // Gives a look that is young enough, whether it is done or not.
    std::shared_ptr<const Survey> ask(Look look);

  private:
    void work(const std::stop_token &stop);

    const tool::DictionaryPlace dictionary_;
    std::map<Look, std::shared_ptr<Survey>> newest_; // of the thread that asks

    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::vector<std::pair<Look, std::shared_ptr<Survey>>> waiting_; // guarded by mutex_
    std::jthread thread_;
};

// Gives what a look found, once it is done.
class SurveySource : public Source {
  public:
    // Makes the text that is sent of what the look found.
    using Text = std::function<std::string(const Survey &)>;

    SurveySource(std::shared_ptr<const Survey> survey, Text text)
        : survey_(std::move(survey)), text_(std::move(text))
    {
    }

    std::size_t read(std::span<char> room) override;
    bool is_at_end() const override
    {
        return is_taken_ && out_.is_empty();
    }
    bool has_more() override
    {
        return survey_->is_done;
    }

  private:
    const std::shared_ptr<const Survey> survey_;
    const Text text_;
    Outflow out_;
    bool is_taken_ = false;
};

// Gives what another source gives, once a look is done that the other needs.
class AfterSurvey : public Source {
  public:
    AfterSurvey(std::shared_ptr<const Survey> survey, std::unique_ptr<Source> source)
        : survey_(std::move(survey)), source_(std::move(source))
    {
    }

    std::size_t read(std::span<char> room) override
    {
        return survey_->is_done ? source_->read(room) : 0;
    }
    bool is_at_end() const override
    {
        return survey_->is_done && source_->is_at_end();
    }
    bool has_more() override
    {
        return survey_->is_done && source_->has_more();
    }

  private:
    const std::shared_ptr<const Survey> survey_;
    const std::unique_ptr<Source> source_;
};

} // namespace kp::web
