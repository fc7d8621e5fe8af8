#include "fuzz/fuzz.h"

#include "kp.h"
#include "testing/mounts.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;

namespace kpfuzz {

namespace {

std::vector<std::string> levels_of(const std::string &text)
{
    std::vector<std::string> levels;
    std::istringstream stream(text.substr(0, 4095));
    for (std::string level; std::getline(stream, level, '/');)
        if (!level.empty())
            levels.push_back(level);
    return levels;
}

void empty(const char *folder)
{
    for (const fs::directory_entry &entry : fs::directory_iterator(folder))
        fs::remove_all(entry);
}

} // namespace

void prepare()
{
    kptest::enter_private_mounts();
    fs::create_directories("/run/providers");
    kp_xlog_set_user_level(KP_LEVEL_OFF);
    // The instant reads print a line for each missing topic there.
    if (!freopen("/dev/null", "w", stdout))
        std::abort();
}

void check(bool condition, const char *what)
{
    if (condition)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

void empty_folders()
{
    empty("/dev/shm");
    empty("/run/providers");
}

bool only_the_store_was_touched()
{
    for (const fs::directory_entry &entry : fs::directory_iterator("/dev/shm"))
        if (entry.path() != "/dev/shm/zu-kp")
            return false;
    return true;
}

bool naive_match(const std::string &pattern, const std::string &topic)
{
    const std::vector<std::string> wanted = levels_of(pattern);
    const std::vector<std::string> given = levels_of(topic);
    for (std::size_t level = 0; level < wanted.size() && level < given.size(); ++level) {
        if (wanted[level][0] == '#')
            return true;
        if (wanted[level][0] != '+' && wanted[level] != given[level])
            return false;
    }
    return wanted.size() == given.size();
}

std::multiset<std::string> listed_topics()
{
    std::multiset<std::string> topics;
    kp_topic_node_t *list = kp_list_all_topics();
    for (const kp_topic_node_t *node = list; node; node = node->next)
        topics.insert(node->topic);
    kp_free_list_all_topics(list);
    return topics;
}

} // namespace kpfuzz
