// The two messages between endpoints, byte for byte.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

namespace kptest {

// Gives a change notice of 129 bytes with the bits of these buckets.
std::string write_notice(std::initializer_list<uint32_t> buckets);

// Gives a new-tag notice of 387 bytes. The topic fills at most 386 of them; the rest is zero.
std::string new_tag_notice(const std::string &topic);

} // namespace kptest
