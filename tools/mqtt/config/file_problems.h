// What is wrong with the files that a configuration names, before any of them is used.
#pragma once

#include "config/configuration.h"

#include <string>
#include <vector>

namespace kp::mqtt {

// Of all brokers, each line once.
std::vector<std::string> file_problems(const Configuration &configuration);
std::vector<std::string> date_problems(const Configuration &configuration);

// Of the credentials, keys and certificates; one line each, as the user who asks sees the files.
std::vector<std::string> file_problems(const BrokerSettings &broker);

// Certificates whose time is over or has not begun. A device whose clock is not set yet starts with
// them all the same.
std::vector<std::string> date_problems(const BrokerSettings &broker);

// Mistakes in the dictionary of tags, which are none of the configuration's own: the bridge leaves
// out what they stand in.
std::vector<std::string> dictionary_mistakes(const std::string &directory);

// The same for the state file, or an empty text. It takes no lock, which a running bridge has, and
// makes nothing. A start does not ask: what it finds then may mend itself.
std::string state_file_problem(const std::string &path);

} // namespace kp::mqtt
