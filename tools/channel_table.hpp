// Channels as lines for people, and as JSON for programs.
#pragma once

#include "channel_board.hpp"

#include <string>
#include <vector>

namespace tmctl {

// Where the power stands to the wanted one: 17 columns, '|' the wanted power in
// the middle, '[' and ']' the ends of the band, a '#' for each third of the
// band, and '<' or '>' where it lies further away than the bar is long. A power
// within the band never reaches its ends. Blank for none.
std::string difference_bar(std::optional<double> difference);

// A heading and a line for each channel.
std::vector<std::string> table(const std::vector<channel_readings>&);

// How the channels came to where they are; for channels that have settled.
std::vector<std::string> summary(const std::vector<channel_readings>&);

// A channel as an object of one line.
std::string channel_json(const channel_readings&);

}  // namespace tmctl
