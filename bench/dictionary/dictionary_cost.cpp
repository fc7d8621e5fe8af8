// Measures what the dictionary costs in processor time. It reads a file of 10,000 entries, and has
// the TOML parser alone read it too, in turn; and it looks up topics. The least of twenty counts.
#include "common/config/toml_text.h"
#include "common/dictionary/dictionary.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <limits>

namespace {

using namespace kp::tool;

constexpr int kEntries = 10'000;
constexpr int kRounds = 20;
constexpr int kLookups = 1'000'000;

double processor_ms()
{
    timespec time{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

std::string topic(int number)
{
    return "plant/line" + std::to_string(number / 100) + "/sensor" + std::to_string(number % 100);
}

std::string file_text()
{
    std::string text;
    for (int number = 0; number < kEntries; ++number)
        text += "[\"" + topic(number) +
                "\"]\ntype = \"double\"\nunit = \"°C\"\ndescription = \"Sensor " +
                std::to_string(number) +
                "\"\nrange = [0, 320]\nlimits = { low = 20, high = 250 }\nstale = 5\n\n";
    return text;
}

// Runs an action, and lowers `least` to its processor time in milliseconds if that was less.
template <typename Action> void take_least(double &least, const Action &action)
{
    const double start = processor_ms();
    action();
    least = std::min(least, processor_ms() - start);
}

double lookup_ns(const Dictionary &dictionary)
{
    std::vector<std::string> topics;
    for (int number = 0; number < kEntries; ++number)
        topics.push_back(topic(number));
    int known = 0;
    const double start = processor_ms();
    for (int lookup = 0; lookup < kLookups; ++lookup)
        known += dictionary.facts_of(topics[static_cast<std::size_t>(lookup % kEntries)]).is_known;
    const double ns = (processor_ms() - start) * 1e6 / kLookups;
    return known == kLookups ? ns : std::numeric_limits<double>::quiet_NaN();
}

} // namespace

int main()
{
    const std::string text = file_text();
    double load = std::numeric_limits<double>::max();
    double parse = load;
    std::unique_ptr<Dictionary> dictionary;
    for (int round = 0; round < kRounds; ++round) {
        dictionary.reset(); // its end is no part of the next one's beginning
        take_least(load, [&] {
            dictionary = std::make_unique<Dictionary>(std::vector{
                std::make_shared<const DictionaryFile>(parse_dictionary_file(text, "tags.toml"))});
        });
        take_least(parse, [&text] { (void)toml::parse(text); });
    }
    (void)std::printf("load of %d entries   %6.1f ms\ntoml++ alone           %6.1f ms\n"
                      "load / toml++ alone    %6.2f\na lookup               %6.0f ns\n",
                      kEntries, load, parse, load / parse, lookup_ns(*dictionary));
    return 0;
}
