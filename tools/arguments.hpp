// The command line of tmctl.
#pragma once

#include "handler_connection.hpp"

#include <optional>
#include <string>
#include <vector>

namespace tmctl {

// A command line that cannot be understood; the text says why.
struct usage_error {
    std::string text;
};

struct arguments {
    std::string command;
    std::vector<std::string> operands;

    endpoint server;
    std::optional<endpoint> wss_edge;  // none where the server is on another card

    bool help = false;
    bool json = false;
    bool plain_text = false;  // values of `set` and `run` are text as they stand
    bool tree = false;        // `watch` tells of nodes, not of values
    bool live = false;
    unsigned wss_port = 0;       // of a two-port card, 1 or 2; 0 on one of one port
    double interval = 1.0;       // seconds of real time between two pictures
    std::string until;           // "settled" or a channel's state; empty: once, or for ever
    double quiet = 60.0;         // seconds without a correction that count as settled
    double time_limit = 3600.0;  // seconds that `until` may take
    std::string summary_file;    // of `until settled`; empty for standard output
};

// Throws usage_error.
arguments parse_arguments(const std::vector<std::string>& words);

// Channel numbers as they are typed: "7", "3-8". Sorted, each once; throws
// usage_error for what lies outside of 1 to `highest`.
std::vector<unsigned> parse_channels(const std::vector<std::string>& words, unsigned highest);

// A whole number of at most `highest`; throws usage_error.
unsigned parse_number(const std::string& word, unsigned highest);

std::string usage_text();

}  // namespace tmctl
