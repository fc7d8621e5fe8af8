// The scan of the store for existing topics that a new pattern covers.
#include "core/topic.h"

#include "core/pattern.h"
#include "layout/segment.h"
#include "layout/unique_fd.h"
#include "store/store_path.h"
#include "support/log.h"
#include "support/path.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace kp {

namespace {

constexpr std::size_t kTopicStart = std::string_view(kStoreRoot).size() + 1;

// Appends a name to the path over a scope, if it fits.
class PathLevel {
  public:
    PathLevel(char *path, const char *name) : end_(path + std::strlen(path))
    {
        const auto room = static_cast<std::size_t>(path + kPathSize - end_);
        fits_ = format_text(std::span(end_, room), "/%s", name);
    }
    PathLevel(const PathLevel &) = delete;
    PathLevel &operator=(const PathLevel &) = delete;
    ~PathLevel()
    {
        *end_ = '\0';
    }

    bool fits() const
    {
        return fits_;
    }

  private:
    char *end_;
    bool fits_;
};

void subscribe_if_matched(kp_t *handle, const char *topic, const char *pattern, LogSite site)
{
    if (!topic_match(pattern, topic))
        return;
    KP_LOG_AT(KP_LEVEL_DEBUG, site, "matched [%s]\n", topic);
    (void)sub_plain_topic(handle, topic);
}

} // namespace

int sub_matched_topic(kp_t *handle, const char *pattern)
{
    PathBuffer path;
    (void)format_text(path, "%s", kStoreRoot);
    const std::string_view text(pattern);
    const auto depth = std::count(text.begin(), text.end(), '/');
    return sub_matched_topic_rec(handle, path.data(), static_cast<int>(depth), pattern);
}

int sub_matched_topic_rec(kp_t *handle, char *path, int depth, const char *pattern)
{
    if (!pattern || !*pattern || !path || !std::string_view(path).starts_with(kStoreRoot))
        return -1;
    if (depth < 0 && std::string_view(pattern).back() != '#')
        return 0; // only such a pattern reaches deeper than its own levels
    const UniqueDir dir(open_store_directory(path));
    if (!dir)
        return -1;
    while (const dirent *entry = dir.next()) {
        const PathLevel level(path, entry->d_name);
        if (!level.fits())
            continue;
        if (entry->d_type == DT_REG && depth <= 0)
            subscribe_if_matched(handle, path + kTopicStart, pattern, LogSite::current());
        else if (entry->d_type == DT_DIR)
            (void)sub_matched_topic_rec(handle, path, depth - 1, pattern);
    }
    return 0;
}

} // namespace kp
