#include "json.hpp"

#include <cmath>
#include <cstdint>

namespace json {
namespace {

constexpr std::size_t text_stack = 256;

// The length of the well-formed character at the beginning of the text, 0 where
// there is none.
std::size_t character_length(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80)
        return 1;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length)
        return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0U) != 0x80)
            return 0;
    }
    // Not the shortest form, half of a surrogate pair, or past the last character.
    const unsigned char second = byte(1);
    const bool is_out_of_range =
        (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
        (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
    return is_out_of_range ? 0 : length;
}

value text_value(std::string_view text, allocator& memory) {
    return value(text.data(), static_cast<rapidjson::SizeType>(text.size()), memory);
}

}  // namespace

const char* found_name(const value& v) {
    if (v.IsNull())
        return "null";
    if (v.IsBool())
        return "bool";
    if (v.IsObject())
        return "object";
    if (v.IsArray())
        return "array";
    if (v.IsString())
        return "string";
    if (v.IsUint())
        return "32-bit unsigned integer";
    if (v.IsInt())
        return "32-bit signed integer";
    if (v.IsUint64())
        return "64-bit unsigned integer";
    if (v.IsInt64())
        return "64-bit signed integer";
    if (v.IsFloat())
        return "float";
    if (v.IsDouble())
        return "double";
    return "unknown";
}

std::string to_text(const value& v) {
    buffer text(nullptr, text_stack);
    writer out(text);
    v.Accept(out);
    return {text.GetString(), text.GetSize()};
}

template <>
bool to<bool>(const value& v) {
    if (!v.IsBool())
        throw json_value_conversion_error{"bool", found_name(v)};
    return v.GetBool();
}

template <>
int to<int>(const value& v) {
    if (!v.IsInt())
        throw json_value_conversion_error{"int", found_name(v)};
    return v.GetInt();
}

template <>
unsigned int to<unsigned int>(const value& v) {
    if (!v.IsUint())
        throw json_value_conversion_error{"uint", found_name(v)};
    return v.GetUint();
}

template <>
long long to<long long>(const value& v) {
    if (!v.IsInt64())
        throw json_value_conversion_error{"int64", found_name(v)};
    return v.GetInt64();
}

template <>
double to<double>(const value& v) {
    if (!v.IsLosslessDouble())
        throw json_value_conversion_error{"double", found_name(v)};
    return v.GetDouble();
}

template <>
float to<float>(const value& v) {
    if (!v.IsLosslessDouble())
        throw json_value_conversion_error{"float", found_name(v)};
    return static_cast<float>(v.GetDouble());
}

template <>
std::string to<std::string>(const value& v) {
    if (v.IsString())
        return {v.GetString(), v.GetStringLength()};
    return to_text(v);
}

bool is_utf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string as_utf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        if (length == 0)
            result += "\xef\xbf\xbd";
        else
            result += text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

value from(bool v, allocator&) {
    return value(v);
}

value from(int v, allocator&) {
    return value(v);
}

value from(unsigned int v, allocator&) {
    return value(v);
}

value from(long long v, allocator&) {
    return value(static_cast<std::int64_t>(v));
}

value from(float v, allocator& memory) {
    return from(static_cast<double>(v), memory);
}

value from(double v, allocator&) {
    return std::isfinite(v) ? value(v) : value();
}

value from(std::string_view v, allocator& memory) {
    return is_utf8(v) ? text_value(v, memory) : text_value(as_utf8(v), memory);
}

void add(value& object, std::string_view key, value&& member, allocator& memory) {
    object.AddMember(text_value(key, memory), member, memory);
}

const value* find(const value& object, const char* key) {
    if (!object.IsObject())
        return nullptr;
    const auto member = object.FindMember(key);
    return member == object.MemberEnd() ? nullptr : &member->value;
}

}  // namespace json
