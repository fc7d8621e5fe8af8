// The files of the page, read once at the start.
#pragma once

#include "http/answer.h"

#include <map>
#include <string>

namespace kp::web {

class Pages {
  public:
    // The page's own folder, and that of the library that draws the trends. What cannot be read is
    // not served.
    Pages(const std::string &folder, const std::string &drawing_folder);

    // Nothing for an address that is no file of the page.
    const std::string *find(const std::string &path, std::string &type) const;

  private:
    void add(const std::string &path, const std::string &file);

    std::map<std::string, std::string> files_; // by the path of the address
};

} // namespace kp::web
