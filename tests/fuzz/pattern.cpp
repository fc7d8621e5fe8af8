// Patterns against topics, compared with a second matcher.
#include "fuzz/fuzz.h"

#include "core/pattern.h"

using namespace kpfuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    // Up to the first NUL is the pattern, the rest the topic.
    const std::string pattern(reinterpret_cast<const char *>(data),
                              strnlen(reinterpret_cast<const char *>(data), size));
    const std::string topic(reinterpret_cast<const char *>(data) + pattern.size(),
                            size - pattern.size());
    const char *topic_text = topic.empty() ? "" : topic.c_str() + 1;

    const bool matches = kp::topic_match(pattern.c_str(), topic_text) != 0;

    check(matches == naive_match(pattern, topic_text), "both matchers agree");
    check(kp::is_pattern(pattern.c_str()) == (pattern.find_first_of("+#") != std::string::npos),
          "a pattern is a text with a wildcard");
    return 0;
}
