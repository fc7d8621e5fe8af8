// Holds what the configuration file says, with every default filled in.
#pragma once

#include "common/config/configured.h"
#include "common/names/selection.h"
#include "writing/write_rules.h"

#include <chrono>
#include <string>
#include <vector>

namespace kp::web {

// A place where connections are taken: an address of the loopback with a port, or a Unix socket.
struct Address {
    std::string host; // numeric, without brackets; empty for a Unix socket
    uint16_t port = 0;
    std::string path; // of the Unix socket

    std::string text() const;
};

struct Limits {
    unsigned clients = 64;                          // connections at once
    unsigned topics = 256;                          // topics and patterns in one request
    std::size_t url_bytes = 16384;                  // of one request's target
    std::chrono::milliseconds request_time{10'000}; // until a request is there, whole
};

struct Configuration {
    std::vector<Address> listen;
    std::vector<std::string> hosts; // further names that the device is called by
    std::vector<std::string> show = {"#"};
    std::vector<std::string> hide;
    std::vector<std::string> metrics; // patterns of the topics whose values are metrics
    std::vector<WriteRule> write;     // who may write what; none: nobody writes
    double rate = 20;                 // most updates of a topic in a second
    std::string page;                 // the folder of the page's files
    std::string drawing = "/usr/share/javascript/dygraphs"; // the library that draws trends
    std::string dictionary; // the folder of the dictionary, or empty for the usual one
    Limits limits;

    // Gives the selection of what `show` covers and `hide` does not.
    tool::Selection shown() const;
};

using ConfigurationResult = tool::Configured<Configuration>;

// Reads and checks a file.
ConfigurationResult load_configuration(const std::string &path);

// Does the same with a text; `path` is for messages.
ConfigurationResult parse_configuration(std::string_view text, const std::string &path);

} // namespace kp::web
