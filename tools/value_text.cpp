#include "value_text.hpp"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace tmctl {
namespace {

unsigned char byte_at(std::string_view text, std::size_t i) {
    return static_cast<unsigned char>(text[i]);
}

bool continues(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// A float that travelled as a double is as short as the float.
std::string number_text(double number) {
    const auto narrow = static_cast<float>(number);
    return static_cast<double>(narrow) == number ? fmt::format("{}", narrow)
                                                 : fmt::format("{}", number);
}

}  // namespace

std::string printable(std::string_view text) {
    std::string safe;
    safe.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const unsigned char byte = byte_at(text, i);
        const bool c1 = byte == 0xC2 && i + 1 < text.size() && byte_at(text, i + 1) < 0xA0;
        if (byte < 0x20 || byte == 0x7F)
            safe += fmt::format("\\u{:04x}", byte);
        else if (c1)
            safe += fmt::format("\\u{:04x}", byte_at(text, ++i));
        else
            safe += text[i];
    }
    return safe;
}

std::string value_text(const json::value& value) {
    if (value.IsString())
        return printable({value.GetString(), value.GetStringLength()});
    if (value.IsDouble())
        return number_text(value.GetDouble());
    return json_text(value);
}

std::string json_text(const json::value& value) {
    // Only text within quotes can hold what has to be written otherwise, and
    // there \u00XX means the same.
    return printable(json::to_text(value));
}

std::string time_text(const json::value* milliseconds) {
    if (milliseconds == nullptr)
        return "-";
    constexpr std::int64_t end_of_year_9999 = 253402300800000;
    if (!milliseconds->IsInt64() || milliseconds->GetInt64() < 0 ||
        milliseconds->GetInt64() >= end_of_year_9999)
        return value_text(*milliseconds);
    const std::int64_t time = milliseconds->GetInt64();
    const std::time_t seconds = time / 1000;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900,
                       utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                       time % 1000);
}

std::size_t width(std::string_view text) {
    std::size_t columns = 0;
    for (const char byte : text)
        columns += continues(byte) ? 0 : 1;
    return columns;
}

std::string cut(std::string_view text, std::size_t columns) {
    std::size_t end = 0;
    for (std::size_t seen = 0; end < text.size(); ++end) {
        if (!continues(text[end]) && seen++ == columns)
            break;
    }
    return std::string(text.substr(0, end));
}

std::string padded(std::string text, std::size_t columns) {
    const std::size_t used = width(text);
    if (used < columns)
        text.append(columns - used, ' ');
    return text;
}

std::string cell(std::string_view text, std::size_t columns) {
    return padded(cut(text, columns), columns);
}

}  // namespace tmctl
