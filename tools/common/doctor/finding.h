// What kp doctor found: one line each, with the command that mends it.
#pragma once

#include "common/problem.h"

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace kp::tool {

enum class Severity { note, warning, error };

struct Finding {
    Severity severity;
    std::string check;   // a word that stays the same, for monitoring
    std::string subject; // file, topic, endpoint or limit
    std::string text;
    std::string fix;     // a command, or empty
    int code = kNothing; // the program's exit code if nothing worse was found
};

using Findings = std::vector<Finding>;

// "note", "warning" or "error".
const char *severity_name(Severity severity);

// The keys, which never change: level check subject text fix.
nlohmann::ordered_json finding_json(const Finding &finding);

// The finding for something that could not be looked at, so that nobody knows whether it is in
// order.
Finding unseen(const std::string &subject, std::string text, int code);

struct DictionaryProblem;
struct Mesh;

// Checks the directories, their owners and modes, the room in them and the limits of the system.
void check_system(Findings &findings);
// Checks the endpoints and gives their number.
std::size_t check_mesh(Findings &findings);
// Checks how much of their limits the processes of the endpoints, and their users, have left.
void check_descriptors(const Mesh &mesh, Findings &findings);
// Checks the topics and gives their number.
std::size_t check_store(Findings &findings);
// The mistakes in the files that say what tags mean.
void check_dictionary(const std::vector<DictionaryProblem> &mistakes, Findings &findings);

} // namespace kp::tool
