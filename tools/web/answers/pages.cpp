#include "answers/pages.h"

#include <array>
#include <fstream>
#include <iterator>
#include <string_view>
#include <utility>

namespace kp::web {

namespace {

// A file of the folder that is not listed here is not served.
constexpr std::array kFiles = {"index.html", "style.css", "icon.svg", "main.js",    "details.js",
                               "device.js",  "filter.js", "live.js",  "mappers.js", "openapi.json",
                               "table.js",   "text.js",   "tree.js",  "trend.js"};

constexpr std::array<std::pair<std::string_view, const char *>, 5> kTypes = {{
    {".html", "text/html; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".json", "application/json"},
    {".svg", "image/svg+xml"},
}};

} // namespace

Pages::Pages(const std::string &folder, const std::string &drawing_folder)
{
    for (const char *name : kFiles)
        add(std::string("/") + name, folder + "/" + name);
    add("/", folder + "/index.html");
    add("/lib/dygraph.js", drawing_folder + "/dygraph.min.js");
    add("/lib/dygraph.css", drawing_folder + "/dygraph.min.css");
}

void Pages::add(const std::string &path, const std::string &file)
{
    std::ifstream stream(file, std::ios::binary);
    if (stream)
        files_[path] = {std::istreambuf_iterator<char>(stream), {}};
}

const std::string *Pages::find(const std::string &path, std::string &type) const
{
    const auto file = files_.find(path);
    if (file == files_.end())
        return nullptr;
    type = kTypes[0].second;
    for (const auto &[ending, name] : kTypes)
        if (path.ends_with(ending))
            type = name;
    return &file->second;
}

} // namespace kp::web
