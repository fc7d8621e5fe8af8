// What the fuzz targets share: a private view of the file system, folders that are emptied between
// two inputs, and a check that ends the process with a message, which the fuzzer takes for a
// finding.
#pragma once

#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <set>
#include <string>
#include <vector>

namespace kpfuzz {

// Enters private mounts and silences the library's log. Called once.
void prepare();

// Ends the process with a message when the condition does not hold.
void check(bool condition, const char *what);

// Empties /dev/shm and /run/providers.
void empty_folders();

// Below /dev/shm stands nothing but the store's directory.
bool only_the_store_was_touched();

// The matching of a topic with a pattern, written once more from its description and with nothing
// of the library's.
bool naive_match(const std::string &pattern, const std::string &topic);

// The topics that kp_list_all_topics() gives.
std::multiset<std::string> listed_topics();

} // namespace kpfuzz
