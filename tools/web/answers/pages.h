// Keeps the files of the page, which are read once at the start.
#pragma once

#include "http/answer.h"

#include <map>
#include <string>

namespace kp::web {

class Pages {
  public:
    // Reads the page's own folder, and that of the library that draws the trends. What cannot be
    // read is not served.
    Pages(const std::string &folder, const std::string &drawing_folder);

    // Gives the file at an address, and its media type; null when the page has no such file.
    const std::string *find(const std::string &path, std::string &type) const;

  private:
    void add(const std::string &path, const std::string &file);

    std::map<std::string, std::string> files_; // by the path of the address
};

} // namespace kp::web
