#include "value_line.hpp"

#include <algorithm>

std::optional<value_line> match_value_line(std::string_view line, std::string_view key) {
    line = line.substr(0, line.find('\r'));
    const std::size_t value = key.size() + 1;
    if (!line.starts_with(key) || line.size() <= value)
        return std::nullopt;
    return value_line{line.substr(0, value), line.substr(value)};
}

std::string_view take_line(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    return line;
}
