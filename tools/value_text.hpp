// Values as text. None of these texts holds a control character, whatever the
// value holds: what comes from another side cannot steer the terminal.
#pragma once

#include "json.hpp"

#include <cstddef>
#include <string>
#include <string_view>

namespace tmctl {

// The text with its control characters (C0, DEL, C1) written as \u00XX. Takes UTF-8.
std::string printable(std::string_view text);

// A value for people: text without quotes, numbers as short as they can be.
std::string value_text(const json::value&);

// A value as one line of JSON.
std::string json_text(const json::value&);

// Milliseconds since the Unix epoch as UTC, 2026-11-21T09:30:00.123Z; "-" where
// there are none, and the plain value where it is no time.
std::string time_text(const json::value* milliseconds);

// Left-aligned in that many columns, and never shorter or longer: what does not
// fit is cut. Columns are counted as code points.
std::string cell(std::string_view text, std::size_t columns);

// At most that many columns of the text.
std::string cut(std::string_view text, std::size_t columns);

// Filled up with blanks to at least that many columns.
std::string padded(std::string text, std::size_t columns);

std::size_t width(std::string_view text);

}  // namespace tmctl
