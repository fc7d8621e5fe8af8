// Files of the dictionary: no bytes end the reader, every problem has its place, and every entry
// that is read covers a topic that its own pattern covers by a second matcher.
#include "fuzz/fuzz.h"

#include "common/dictionary/dictionary.h"
#include "kp.h"

#include <algorithm>

using namespace kpfuzz;
using namespace kp::tool;

namespace {

// Gives a topic that the pattern covers.
std::string example_topic(std::string pattern)
{
    for (char &character : pattern)
        if (character == '+' || character == '#')
            character = 'x';
    return pattern;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    const auto file = std::make_shared<const DictionaryFile>(parse_dictionary_file(text, "f"));
    for (const DictionaryProblem &problem : file->problems)
        check(problem.place.line > 0 && !problem.text.empty(), "a problem has a line and words");
    const Dictionary dictionary({file});
    for (const DictionaryEntry &entry : file->entries) {
        const std::string topic = example_topic(entry.pattern);
        const Facts facts = dictionary.facts_of(topic);
        check(facts.is_known && naive_match(entry.pattern, topic), "an entry covers its topic");
        check(!entry.unit || facts.unit, "a fact of an entry is known");
        (void)range_text(facts);
        (void)state_of(facts, {KP_TYPE_DOUBLE, text.substr(0, 8), KP_QUALITY_GOOD, 1, 2});
        (void)name_of(facts, KP_TYPE_UINT64, text.substr(0, 8));
    }
    return 0;
}
