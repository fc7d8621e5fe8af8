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

// Ends the process with a message when something else than the store's directory is in /dev/shm.
bool only_the_store_was_touched();

// Says whether a topic matches a pattern. This is written once more from the description of
// patterns, and uses nothing of the library.
bool naive_match(const std::string &pattern, const std::string &topic);

// Gives the topics that kp_list_all_topics() gives.
std::multiset<std::string> listed_topics();

} // namespace kpfuzz
