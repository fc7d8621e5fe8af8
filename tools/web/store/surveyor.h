// Looks that take their time, as they go through all processes: done by a thread of their own, so
// that nobody who follows values waits for them, and shared by all who ask within two seconds.
#pragma once

#include "http/answer.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace kp::web {

enum class Look { peers, doctor };

// What a look found, as lines of JSON.
struct Survey {
    uint64_t asked_us = 0;
    std::atomic<bool> is_done = false;
    std::string text; // not to be read before it is done
};

class Surveyor {
  public:
    Surveyor();
    Surveyor(const Surveyor &) = delete;
    Surveyor &operator=(const Surveyor &) = delete;
    ~Surveyor();

    // A look that is young enough, be it done or not.
    std::shared_ptr<const Survey> ask(Look look);

  private:
    void work(const std::stop_token &stop);

    std::map<Look, std::shared_ptr<Survey>> newest_; // of the thread that asks

    std::mutex mutex_;
    std::condition_variable_any changed_;
    std::vector<std::pair<Look, std::shared_ptr<Survey>>> waiting_; // guarded by mutex_
    std::jthread thread_;
};

// Gives what a look found, once it is done.
class SurveySource : public Source {
  public:
    explicit SurveySource(std::shared_ptr<const Survey> survey) : survey_(std::move(survey))
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
    Outflow out_;
    bool is_taken_ = false;
};

} // namespace kp::web
