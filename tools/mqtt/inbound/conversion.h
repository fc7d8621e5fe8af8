// What the value of a message becomes in the store.
#pragma once

#include "config/configuration.h"
#include "messages/message.h"
#include "store/local_writer.h"
#include "store/store_reader.h"

#include <string>

namespace kp::mqtt {

// Fills the sample of the request for a tag of which `current` is known, as far as the outcome of
// reading it says so. Returns what is wrong with the message, or an empty text.
std::string convert(const InRule &rule, const Message &message, ReadOutcome outcome,
                    const Sample &current, WriteRequest &request);

} // namespace kp::mqtt
