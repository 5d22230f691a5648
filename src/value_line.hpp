// One line of the card's text files of values: a key, one separator character
// of any kind, and a text.
#pragma once

#include <optional>
#include <string_view>

struct value_line {
    std::string_view key_and_separator;
    std::string_view value;  // at least one character
};

// The parts of a line that has the key, as the expression "(^KEY.)(.+)" finds
// them in it: nothing is trimmed, keys are not delimited, and all of it stands
// before a carriage return. The line is without its line end; the parts point
// into it. Takes lines of any length, where the library's expressions recurse
// once a character.
std::optional<value_line> match_value_line(std::string_view line, std::string_view key);

// Takes the first line, without its line end, off a text that is not empty. The
// last line may lack a line end.
std::string_view take_line(std::string_view& text);
