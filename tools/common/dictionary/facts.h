// What the dictionary knows of a topic. Each fact comes from one entry of one file and remembers
// where it stands there, so that a user can be shown who says so.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kp::tool {

// A place in a file of the dictionary. Line and column count from 1; 0 is the file as a whole.
struct FilePlace {
    std::shared_ptr<const std::string> file; // its name, shared by all places in it
    uint32_t line = 0;
    uint32_t column = 0;
};

// A number in the shortest form that reads back to the same bits.
std::string number_text(double number);

// "file:line:column", as compilers write it, safe to show.
std::string place_text(const FilePlace &place);

// Smallest and largest value, both allowed. The numbers are in the topic's unit.
struct ValueRange {
    double least = 0;
    double most = 0;
};

// If a value reaches one of these limits, somebody should look. Each limit is optional. In this
// order, none is smaller than the one before.
struct ValueLimits {
    std::optional<double> lowlow;
    std::optional<double> low;
    std::optional<double> high;
    std::optional<double> highhigh;
};

// Whether all limits are values that the range allows.
bool lie_in(const ValueLimits &limits, const ValueRange &range);

// How a history of the topic is kept.
struct Recording {
    double deadband = 0;     // changes up to this are not recorded, in the topic's unit
    double at_least_s = 0;   // seconds after which an unchanged value is recorded again; 0: never
    bool keeps_last = false; // whether the last value outlives the device's restart
};

using ValueNames = std::map<int64_t, std::string>; // of booleans (0 and 1) and whole numbers

template <typename T> struct Fact {
    T value;
    FilePlace place;
    bool is_of_pattern = false; // it may speak of several topics
};

// The facts about one topic, or one entry of a file. Pointers are null where nothing is known; they
// are the dictionary's and live as long as it does.
struct Facts {
    const Fact<uint32_t> *type = nullptr;
    const Fact<uint32_t> *size = nullptr; // largest size in bytes, for the types of variable size
    const Fact<std::string> *unit = nullptr;
    const Fact<std::string> *description = nullptr;
    const Fact<ValueRange> *range = nullptr;
    const Fact<ValueLimits> *limits = nullptr;
    const Fact<double> *stale_s = nullptr; // seconds without a write after which a value is stale
    const Fact<Recording> *record = nullptr;
    const Fact<ValueNames> *names = nullptr;
    bool is_known = false; // whether any entry covers the topic, be it an empty one
};

// The name of a value, or null.
const std::string *name_of(const Facts &facts, uint32_t type, std::string_view bytes);

// The value that a name stands for, as text that the type takes; nothing for another text.
std::optional<std::string> named_value(const Facts &facts, std::string_view name);

// The state of a topic's value, judged by what is known of the topic. The worst state comes first.
enum class ValueState { bad_quality, stale, lowlow, highhigh, low, high, ok };

// "ok", "low", "highhigh", "stale", "bad quality", …
const char *state_name(ValueState state);

// What state_of() judges. The times are microseconds of the wall clock since the Unix epoch.
struct StateInput {
    uint32_t type;
    std::string_view bytes; // of the value, empty when there is none
    uint8_t quality;
    uint64_t written_us;
    uint64_t now_us;
};

// Every quality but KP_QUALITY_GOOD is bad. A value without a fact about it is ok. A NaN is beyond
// every limit of a topic that has limits.
ValueState state_of(const Facts &facts, const StateInput &input);

// Whether a value lies within the range; true where there is none, or the type has no numbers.
bool is_in_range(const Facts &facts, uint32_t type, std::string_view bytes);

// "0..320 °C", for messages.
std::string range_text(const Facts &facts);

} // namespace kp::tool
