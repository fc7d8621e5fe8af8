// The program's one dictionary, and what it says of the topics that are shown.
#pragma once

#include "common/dictionary/live_dictionary.h"
#include "common/dictionary/meaning.h"

namespace kp::tool {

// Names the directory, "" for the usual one; to be called before anything is looked up.
void choose_dictionary(const std::string &option);

// The directory that is read.
const std::string &dictionary_directory();

// The one of the program, read when it is first needed. Mistakes in it are told on standard error.
const Dictionary &dictionary();

// What another reading of the files brought.
struct Reread {
    bool is_new = false; // whether another dictionary is in force
    std::vector<DictionaryProblem> mistakes;
};

// Reads again what has changed, at most once a second, for commands that run on. What was looked up
// before is no longer valid afterwards.
Reread refresh_dictionary();

// Tells of mistakes on standard error, of many only the first few.
void tell_mistakes(const std::vector<DictionaryProblem> &mistakes);

// The mistakes in the files, for a command that tells them itself and instead of standard error.
std::vector<DictionaryProblem> dictionary_problems();

// By the program's dictionary. Valid until that is refreshed.
Meaning meaning_of(const std::string &topic, const Snapshot &snapshot);

// The text in the colour of the state, as it is when all is well.
std::string colored_by_state(const std::string &text, const Meaning &meaning);

} // namespace kp::tool
