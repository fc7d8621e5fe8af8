#include "other_device.h"

#include "device.h"
#include "line.h"
#include "testing/mounts.h"
#include "testing/process.h"

#include <csignal>
#include <gtest/gtest.h>
#include <set>
#include <sstream>

namespace kptest {

namespace {

class Life {
  public:
    Life(int broker_port, const std::string &rules, const std::string &name)
        : line_(broker_port),
          bridge_(line_.port(),
                  configuration(line_.port(),
                                "state-file = \"/run/state\"\ntrust-visible = true\n" + rules, "",
                                name))
    {
    }

    std::string answer(const std::string &order)
    {
        std::istringstream words(order);
        std::string verb;
        std::string topic;
        std::string text;
        words >> verb >> topic >> text;
        if (verb == "value")
            return value_of(topic);
        uint64_t source_ts = 0;
        words >> source_ts;
        return carry_out(verb, topic, text, source_ts) ? "done" : "failed";
    }

  private:
    static std::string value_of(const std::string &topic)
    {
        const auto sample = read_tag(topic);
        return sample ? std::string(kp_type2str(sample->type)) + ' ' + sample->value : "none";
    }
    bool carry_out(const std::string &verb, const std::string &topic, const std::string &text,
                   uint64_t source_ts)
    {
        if (verb == "declare")
            declare(topic, text);
        else if (verb == "write")
            tags_.write(topic, text, 1, source_ts);
        else if (verb == "drop" && declared_.erase(topic) > 0)
            tags_.drop(topic);
        else if (verb == "await")
            return text.empty() ? wait_until([&] { return !read_tag(topic); })
                                : wait_for_tag(topic, text);
        else
            return steer(verb);
        return true;
    }
    void declare(const std::string &topic, const std::string &type)
    {
        if (declared_.insert(topic).second)
            tags_.declare(topic,
                          type.empty() ? uint32_t{KP_TYPE_STRING} : kp_str2type(type.c_str()));
    }
    bool steer(const std::string &verb)
    {
        if (verb == "cut")
            line_.cut();
        if (verb == "mend")
            line_.mend();
        if (verb == "stop")
            return bridge_.stop().has_value(); // also before it has come to take signals
        if (verb == "kill") {
            bridge_.signal(SIGKILL);
            return bridge_.wait().has_value();
        }
        if (verb == "start") {
            connections_before_ = connections();
            bridge_.start();
        }
        if (verb == "beats") {
            const uint64_t now = kp_get_timestamp_us();
            return wait_until([now] { return status_number("heartbeat") > now; });
        }
        if (verb == "connected")
            return wait_until([this] { return connections() > connections_before_; });
        return true;
    }

    // As often as the bridge has said so, in all its runs.
    int connections() const
    {
        const std::string log = bridge_.log();
        int count = 0;
        for (size_t at = log.find("connected to "); at != log.npos;
             at = log.find("connected to ", at + 1))
            ++count;
        return count;
    }

    Line line_;
    BridgeProgram bridge_;
    int connections_before_ = 0; // when it was started last
    Tags tags_;
    std::set<std::string> declared_;
};

int live(Channel &parent, int broker_port, const std::string &rules, const std::string &name)
{
    enter_private_mounts();
    Life life(broker_port, rules, name);
    (void)parent.tell(wait_for_connection() ? "there" : "failed");
    while (const auto order = parent.hear(std::chrono::minutes(2)))
        (void)parent.tell(life.answer(*order));
    return 0;
}

} // namespace

OtherDevice::OtherDevice(int broker_port, const std::string &rules, const std::string &name)
    : process_([=](Channel &parent) { return live(parent, broker_port, rules, name); })
{
    EXPECT_EQ(process_.hear(), "there");
}

bool OtherDevice::does(const std::string &order)
{
    return process_.tell(order) && process_.hear(std::chrono::seconds(40)) == "done";
}

std::string OtherDevice::value(const std::string &topic)
{
    (void)process_.tell("value " + topic);
    return process_.hear().value_or("no answer");
}

} // namespace kptest
