// One side of the exchange: an application with one handle, which a test drives with lines on
// standard input. Every command is answered with a line; a change notice gives a line of its own
// for each topic with a new value.
#include "kp.h"

#include <cstdio>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

namespace {

std::mutex output_lock;

void say(const std::string &line)
{
    const std::lock_guard lock(output_lock);
    std::cout << line << std::endl;
}

std::string value_of(kp_tag_t *tag)
{
    char value[KP_MAX_VALUE_SIZE];
    uint32_t quality = 0;
    uint64_t source_ts = 0;
    const int32_t size =
        kp_tag_read_with_source_params(tag, value, sizeof(value), &quality, &source_ts);
    if (size < 0)
        return "unreadable";
    std::ostringstream text;
    text << quality << ' ' << source_ts << ' ' << size << ' ' << std::string(value, value + size);
    return text.str();
}

int tell_changes(kp_t *handle, const kp_write_info *notice, void *)
{
    kp_tag_iter_t iter = {0, nullptr};
    while (iter.bucket < KP_BUCKET_COUNT)
        if (kp_tag_t *tag = kp_get_next_updated_tag(handle, notice, &iter))
            say(std::string("changed ") + kp_tag_get_topic(tag) + ' ' + value_of(tag));
    return 0;
}

class Application {
  public:
    explicit Application(const char *name) : handle_(kp_new(name, tell_changes))
    {
    }
    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;
    ~Application()
    {
        (void)kp_tags_destroy(handle_);
        (void)kp_destroy(handle_);
    }

    bool is_ready() const
    {
        return handle_;
    }

    // Returns the answer to a command.
    std::string obey(std::istringstream command)
    {
        std::string verb;
        std::string topic;
        command >> verb >> topic;
        if (verb == "provide")
            return provide(topic);
        if (verb == "consume")
            return result(kp_tag_consumer_new(handle_, topic.c_str()));
        if (verb == "subscribe")
            return result(kp_sub_topic(handle_, topic.c_str()) == 0);
        if (verb == "write")
            return write(topic, command);
        if (verb == "count")
            return count(topic);
        return "unknown command";
    }

  private:
    static std::string result(bool is_good)
    {
        return is_good ? "ok" : "failed";
    }

    std::string provide(const std::string &topic)
    {
        (void)kp_set_new_tag_notify(handle_, 1);
        return result(
            kp_tag_provider_new(handle_, topic.c_str(), KP_TYPE_STRING, KP_MAX_VALUE_SIZE, 0));
    }

    std::string write(const std::string &topic, std::istringstream &command)
    {
        uint32_t quality = 0;
        uint64_t source_ts = 0;
        std::string value;
        command >> quality >> source_ts >> value;
        kp_tag_t *tag = kp_get_tag(handle_, topic.c_str());
        const int32_t written = kp_tag_write_with_source_params(
            handle_, tag, value.data(), static_cast<uint32_t>(value.size()), quality, source_ts);
        return result(written == static_cast<int32_t>(value.size()) && kp_tag_notify(handle_) == 0);
    }

    static std::string count(const std::string &topic)
    {
        uint32_t providers = 0;
        uint32_t consumers = 0;
        if (kp_tag_get_reference_count(topic.c_str(), &providers, &consumers) != 0)
            return "failed";
        return std::to_string(providers) + ' ' + std::to_string(consumers);
    }

    kp_t *handle_;
};

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return 2;
    Application application(argv[1]);
    if (!application.is_ready())
        return 1;
    say("ready");
    for (std::string line; std::getline(std::cin, line) && line != "quit";)
        say(application.obey(std::istringstream(line)));
    return 0;
}
