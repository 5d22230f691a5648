#include "wire.hpp"

#include <rapidjson/memorystream.h>

#include <algorithm>
#include <cstring>
#include <limits>

namespace wire {
namespace {

// The reader takes the second half of a surrogate pair without its first
// ("\\udc00") and makes three bytes of it that are not UTF-8.
bool has_half_surrogate(std::string_view text) {
    for (auto at = text.find('\xed'); at != std::string_view::npos;
         at = text.find('\xed', at + 1)) {
        if (at + 1 < text.size() && static_cast<unsigned char>(text[at + 1]) >= 0xa0)
            return true;
    }
    return false;
}

// Passes a document's building events on until the nesting gets too deep or a
// text is not UTF-8.
class content_guard {
  public:
    using Ch = char;

    explicit content_guard(json::document& into) : into_(into) {}

    bool Null() { return into_.Null(); }
    bool Bool(bool v) { return into_.Bool(v); }
    bool Int(int v) { return into_.Int(v); }
    bool Uint(unsigned v) { return into_.Uint(v); }
    bool Int64(std::int64_t v) { return into_.Int64(v); }
    bool Uint64(std::uint64_t v) { return into_.Uint64(v); }
    bool Double(double v) { return into_.Double(v); }
    bool RawNumber(const char* text, rapidjson::SizeType length, bool copy) {
        return into_.RawNumber(text, length, copy);
    }
    bool String(const char* text, rapidjson::SizeType length, bool copy) {
        return !has_half_surrogate({text, length}) && into_.String(text, length, copy);
    }
    bool Key(const char* text, rapidjson::SizeType length, bool copy) {
        return !has_half_surrogate({text, length}) && into_.Key(text, length, copy);
    }
    bool StartObject() { return ++depth_ <= max_nesting && into_.StartObject(); }
    bool EndObject(rapidjson::SizeType members) {
        --depth_;
        return into_.EndObject(members);
    }
    bool StartArray() { return ++depth_ <= max_nesting && into_.StartArray(); }
    bool EndArray(rapidjson::SizeType elements) {
        --depth_;
        return into_.EndArray(elements);
    }

  private:
    json::document& into_;
    int depth_ = 0;
};

constexpr unsigned ascii_flags = rapidjson::kParseFullPrecisionFlag;
constexpr unsigned utf8_flags = ascii_flags | rapidjson::kParseValidateEncodingFlag;

bool is_ascii(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](char c) { return (static_cast<unsigned char>(c) & 0x80U) != 0; });
}

// What a splitter keeps when nothing waits in it.
constexpr std::size_t kept_memory = std::size_t{64} << 10;

bool is_blank(std::string_view line) {
    return line.find_first_not_of(" \t\r\v\f") == std::string_view::npos;
}

bool read_line(std::string_view line, rapidjson::Reader& reader, json::document& into) {
    // The reader takes a NUL for the end of the text.
    if (line.find('\0') != std::string_view::npos)
        return false;
    bool well_formed = false;
    auto read = [&](json::document& handler) {
        rapidjson::MemoryStream stream(line.data(), line.size());
        rapidjson::EncodedInputStream<rapidjson::UTF8<>, rapidjson::MemoryStream> text(stream);
        content_guard guard(handler);
        const rapidjson::ParseResult result = is_ascii(line)
                                                  ? reader.Parse<ascii_flags>(text, guard)
                                                  : reader.Parse<utf8_flags>(text, guard);
        well_formed = !result.IsError();
        return well_formed;
    };
    into.Populate(read);
    return well_formed;
}

void write_id(json::writer& out, const request_id& id) {
    struct visitor {
        json::writer& out;
        void operator()(std::monostate) const { out.Null(); }
        void operator()(std::int64_t number) const { out.Int64(number); }
        void operator()(std::uint64_t number) const { out.Uint64(number); }
        void operator()(const std::string& text) const {
            out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        }
    };
    std::visit(visitor{out}, id);
}

void put(json::buffer& out, std::string_view text) {
    std::memcpy(out.Push(text.size()), text.data(), text.size());
}

void write_error(json::writer& out, int code, std::string_view message) {
    out.StartObject();
    out.Key("code");
    out.Int(code);
    out.Key("message");
    const std::string text = json::as_utf8(message);
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
    out.EndObject();
}

void begin_message(json::buffer& line, const request_id& id, std::string_view next_key) {
    put(line, R"({"jsonrpc":"2.0","id":)");
    json::writer out(line);
    write_id(out, id);
    put(line, next_key);
}

}  // namespace

char* line_splitter::room(std::size_t wanted) {
    if (begin_ == end_) {
        begin_ = scanned_ = end_ = 0;
        if (data_.size() > kept_memory) {
            data_.resize(kept_memory);
            data_.shrink_to_fit();
        }
    } else if (begin_ > 0 && data_.size() - end_ < wanted) {
        std::memmove(data_.data(), data_.data() + begin_, end_ - begin_);
        scanned_ -= begin_;
        end_ -= begin_;
        begin_ = 0;
    }
    if (data_.size() - end_ < wanted)
        data_.resize(std::max(end_ + wanted, std::min(2 * data_.size(), 2 * max_line_)));
    return data_.data() + end_;
}

std::optional<std::string_view> line_splitter::next() {
    while (!too_long_) {
        const void* const found = std::memchr(data_.data() + scanned_, '\n', end_ - scanned_);
        if (found == nullptr) {
            scanned_ = end_;
            too_long_ = end_ - begin_ >= max_line_;
            return std::nullopt;
        }
        const auto line_end =
            static_cast<std::size_t>(static_cast<const char*>(found) - data_.data());
        if (line_end + 1 - begin_ > max_line_) {
            too_long_ = true;
            return std::nullopt;
        }
        std::string_view line(data_.data() + begin_, line_end - begin_);
        begin_ = scanned_ = line_end + 1;
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (!is_blank(line))
            return line;
    }
    return std::nullopt;
}

parser::parser() : document_(&pool_, 1024, &stack_allocator_), reader_(&stack_allocator_) {}

const json::value* parser::parse(std::string_view line) {
    document_.SetNull();
    pool_.Clear();
    return read_line(line, reader_, document_) ? &document_ : nullptr;
}

bool parse(std::string_view line, json::document& into) {
    rapidjson::Reader reader;
    return read_line(line, reader, into);
}

std::variant<request, refusal> as_request(const json::value& line) {
    if (!line.IsObject())
        return refusal{true, {}};
    request found{};
    if (const json::value* id = json::find(line, "id")) {
        if (id->IsInt64())
            found.id = id->GetInt64();
        else if (id->IsUint64())
            found.id = id->GetUint64();
        else if (id->IsString())
            found.id = std::string(id->GetString(), id->GetStringLength());
        else
            return refusal{true, {}};
    }
    const bool wants_answer = !std::holds_alternative<std::monostate>(found.id);
    const json::value* version = json::find(line, "jsonrpc");
    const json::value* method = json::find(line, "method");
    const bool right_version = version != nullptr && *version == "2.0";
    if (!right_version || method == nullptr || !method->IsString())
        return refusal{wants_answer, found.id};
    found.method = {method->GetString(), method->GetStringLength()};
    found.params = json::find(line, "params");
    return found;
}

void begin_reply(json::buffer& line, const request_id& id) {
    begin_message(line, id, R"(,"result":)");
}

void end_reply(json::buffer& line) {
    put(line, "}\n");
}

void write_error_reply(json::buffer& line, const request_id& id, int code,
                       std::string_view message) {
    begin_message(line, id, R"(,"error":)");
    json::writer out(line);
    write_error(out, code, message);
    end_reply(line);
}

void write_entry_error(json::writer& out, int code, std::string_view message) {
    out.StartObject();
    out.Key("error");
    write_error(out, code, message);
    out.EndObject();
}

std::string event_line(const json::value& params) {
    json::buffer line;
    put(line, R"({"jsonrpc":"2.0","method":"event","params":)");
    json::writer out(line);
    params.Accept(out);
    end_reply(line);
    return {line.GetString(), line.GetSize()};
}

std::string_view without_leading_slash(std::string_view path) {
    return path.starts_with('/') ? path.substr(1) : path;
}

bool is_under(std::string_view path, std::string_view prefix) {
    if (prefix.empty())
        return true;
    return path.starts_with(prefix) && (path.size() == prefix.size() || path[prefix.size()] == '/');
}

}  // namespace wire
