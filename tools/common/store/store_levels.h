// The store's directories, opened level by level. Somebody who may write in the store must not get
// the rights of somebody who runs a tool. So no link below the store's root is followed.
#pragma once

#include "common/problem.h"
#include "layout/unique_fd.h"

#include <string>
#include <string_view>

namespace kp::tool {

// Opens a directory right below another one. A failure stands in errno: ELOOP for a link, whatever
// it leads to.
UniqueFd open_level(int parent, const std::string &name);

// Open directories by their names, which are relative to the store's root; "" is the root itself.
// A failure stands in errno. The second one makes what is missing.
UniqueFd open_levels(std::string_view directory);
UniqueFd make_levels(std::string_view directory);

// Reads the entries of an open directory from the first on, also of one opened with O_PATH. Empty,
// with errno set, when that fails.
UniqueDir entries_of(const UniqueFd &directory);

// False also when the directory cannot be read.
bool is_empty_directory(const UniqueFd &directory);

// The part of a name behind its last slash.
std::string last_level(const std::string &name);

// Why a topic, or a directory of topics, cannot be reached.
Problem topic_problem(const std::string &topic, int error);

} // namespace kp::tool
