#include "json.hpp"

#include <cmath>
#include <cstdint>

namespace json {
namespace {

constexpr std::size_t text_stack = 256;

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
    return text_value(v, memory);
}

void add(value& object, std::string_view key, value member, allocator& memory) {
    object.AddMember(text_value(key, memory), member, memory);
}

const value* find(const value& object, const char* key) {
    if (!object.IsObject())
        return nullptr;
    const auto member = object.FindMember(key);
    return member == object.MemberEnd() ? nullptr : &member->value;
}

}  // namespace json
