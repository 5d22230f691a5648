// JSON values as they travel on the wire, and their conversion from and to the
// program's values.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <string>
#include <string_view>

// A JSON value of the wrong type: the names of the type that was expected and
// of the one that was found. Both live as long as the program.
struct json_value_conversion_error {
    const char* expected;
    const char* found;
};

namespace json {

using allocator = rapidjson::MemoryPoolAllocator<>;
using value = rapidjson::Value;
using document = rapidjson::Document;
using buffer = rapidjson::StringBuffer;
using writer = rapidjson::Writer<buffer>;

// Memory for small values, on the stack of the caller as long as it suffices.
class scratch {
  public:
    scratch() : pool_(memory_, sizeof memory_, chunk) {}
    scratch(const scratch&) = delete;
    scratch& operator=(const scratch&) = delete;
    operator allocator&() { return pool_; }

  private:
    static constexpr std::size_t chunk = 1024;
    alignas(8) char memory_[chunk];
    allocator pool_;
};

// The name of a JSON value's type as error texts give it.
const char* found_name(const value&);

// A JSON value as compact text.
std::string to_text(const value&);

// Throws json_value_conversion_error where the JSON value does not fit T: bool,
// int, unsigned int, long long, float, double or std::string (which takes any
// value: a string's text, or else the compact text of the value).
template <class T>
T to(const value&);
template <>
bool to<bool>(const value&);
template <>
int to<int>(const value&);
template <>
unsigned int to<unsigned int>(const value&);
template <>
long long to<long long>(const value&);
template <>
float to<float>(const value&);
template <>
double to<double>(const value&);
template <>
std::string to<std::string>(const value&);

// Whether the text is well-formed UTF-8.
bool is_utf8(std::string_view text);

// The text with each byte that is not part of well-formed UTF-8 replaced by
// U+FFFD: one bad text from a file must not spoil a whole line for its readers.
std::string as_utf8(std::string_view text);

// A program value as JSON. A float is widened to the double of the same value.
// NaN and infinities, which never travel, become null; a text goes as_utf8.
value from(bool, allocator&);
value from(int, allocator&);
value from(unsigned int, allocator&);
value from(long long, allocator&);
value from(float, allocator&);
value from(double, allocator&);
value from(std::string_view, allocator&);
inline value from(const value& other, allocator& memory) {
    return {other, memory};
}
inline value from(const std::string& text, allocator& memory) {
    return from(std::string_view(text), memory);
}
inline value from(const char* text, allocator& memory) {
    return from(std::string_view(text), memory);
}

// Adds a member to an object, copying the key.
void add(value& object, std::string_view key, value&& member, allocator&);

template <class T>
void add(value& object, std::string_view key, const T& member, allocator& memory) {
    add(object, key, from(member, memory), memory);
}

// The member of an object, or null where the value is no object or has none.
const value* find(const value& object, const char* key);

}  // namespace json
