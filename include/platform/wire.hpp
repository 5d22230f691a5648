// The wire protocol in one place: framing, requests, replies, events and their
// limits. Server, client, simulator and tools all encode and decode here.
#pragma once

#include "json.hpp"

#include <rapidjson/reader.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace wire {

inline constexpr std::size_t max_request_line = std::size_t{1} << 20;  // bytes, LF included
inline constexpr std::size_t max_reply_line = std::size_t{16} << 20;   // bytes, LF included
inline constexpr std::size_t max_entries = 1024;                       // paths or items a request
inline constexpr int max_nesting = 64;                                 // objects and arrays
inline constexpr int protocol_version = 1;

// Codes of errors of a whole request.
namespace error_code {
inline constexpr int not_json = -32700;
inline constexpr int not_a_request = -32600;
inline constexpr int unknown_method = -32601;
inline constexpr int bad_params = -32602;
inline constexpr int too_many_sessions = -32000;
inline constexpr int reply_too_large = -32001;
}  // namespace error_code

// Cuts a stream of bytes into lines. A line comes without its LF and without a
// CR before it; lines of nothing but blanks are passed over.
class line_splitter {
  public:
    explicit line_splitter(std::size_t max_line) : max_line_(max_line) {}

    // Room for at least `wanted` bytes at the end; say with `filled` how many came.
    char* room(std::size_t wanted);
    std::size_t room_size() const { return data_.size() - end_; }
    void filled(std::size_t bytes) { end_ += bytes; }

    // The next whole line, valid until the next call of `room`.
    std::optional<std::string_view> next();

    // True once the line that is coming in, or the one just cut, is longer than
    // allowed. There is no way on from there.
    bool too_long() const { return too_long_; }

  private:
    std::string data_;
    std::size_t begin_ = 0;    // first byte not yet given out
    std::size_t scanned_ = 0;  // no LF between begin_ and here
    std::size_t end_ = 0;      // end of what has come
    std::size_t max_line_;
    bool too_long_ = false;
};

// Parses lines, one after the other, in memory that it keeps.
class parser {
  public:
    parser();
    parser(const parser&) = delete;
    parser& operator=(const parser&) = delete;

    // The parsed line, valid until the next call. Null where it is no JSON: bad
    // syntax, text that is not UTF-8, nesting too deep, a number that no double holds.
    const json::value* parse(std::string_view line);

  private:
    static constexpr std::size_t kept_memory = 4096;

    alignas(8) char memory_[kept_memory];
    json::allocator pool_{memory_, sizeof memory_, kept_memory};
    rapidjson::CrtAllocator stack_allocator_;
    json::document document_;
    rapidjson::Reader reader_;
};

// Parses one line into a document of the caller's. False where it is no JSON.
bool parse(std::string_view line, json::document& into);

// The id of a request: an integer, a text, or none where the request wants no answer.
using request_id = std::variant<std::monostate, std::int64_t, std::uint64_t, std::string>;

struct request {
    request_id id;
    std::string_view method;    // in the parsed document
    const json::value* params;  // in the parsed document; null where there are none
};

// Reads a request out of a parsed line. Where it is none, the result says with
// which id the refusal goes out (null where it has none that can be used), or
// that the line asked for no answer.
struct refusal {
    bool answer;
    request_id id;
};
std::variant<request, refusal> as_request(const json::value& line);

// Writers of whole lines, LF included.
void begin_reply(json::buffer&, const request_id&);  // up to and with "result":
void end_reply(json::buffer&);
void write_error_reply(json::buffer&, const request_id&, int code, std::string_view message);
void write_entry_error(json::writer&, int code, std::string_view message);

// A request line; `write_params` writes the params object.
template <class WriteParams>
void write_request(json::buffer& line, std::uint64_t id, const char* method,
                   const WriteParams& write_params) {
    thread_local json::writer out;  // keeps its memory
    out.Reset(line);
    out.StartObject();
    out.Key("jsonrpc");
    out.String("2.0");
    out.Key("id");
    out.Uint64(id);
    out.Key("method");
    out.String(method);
    out.Key("params");
    write_params(out);
    out.EndObject();
    line.Put('\n');
}

// An event line around its members, which an object holds.
std::string event_line(const json::value& params);

// The path as the tree knows it: without one leading slash.
std::string_view without_leading_slash(std::string_view path);

// Whether the path lies under the prefix, which matches whole parts; the empty
// prefix matches all.
bool is_under(std::string_view path, std::string_view prefix);

}  // namespace wire
