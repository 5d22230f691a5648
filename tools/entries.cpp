#include "entries.hpp"

#include "dh_error.hpp"
#include "value_text.hpp"

#include <algorithm>

namespace tmctl {

void write_text(json::writer& out, std::string_view text) {
    out.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void call_with_entries(handler_connection& connection, const char* method, const char* list_name,
                       std::size_t count, const entry_writer& write_entry,
                       std::chrono::seconds limit, const entry_handler& each) {
    for (std::size_t begin = 0; begin < count; begin += wire::max_entries) {
        const std::size_t end = std::min(count, begin + wire::max_entries);
        const auto write_params = [&](json::writer& out) {
            out.StartObject();
            out.Key(list_name);
            out.StartArray();
            for (std::size_t i = begin; i < end; ++i)
                write_entry(out, i);
            out.EndArray();
            out.EndObject();
        };
        const json::document result = connection.call(method, write_params, limit);
        if (!result.IsArray() || result.Size() != end - begin)
            throw request_error{dh_client_code::bad_reply, "bad reply"};
        for (std::size_t i = begin; i < end; ++i)
            each(i, result[static_cast<rapidjson::SizeType>(i - begin)]);
    }
}

void call_with_paths(handler_connection& connection, const char* method,
                     const std::vector<std::string>& paths, const entry_handler& each) {
    call_with_entries(
        connection, method, "paths", paths.size(),
        [&paths](json::writer& out, std::size_t i) { write_text(out, paths[i]); },
        handler_connection::reply_limit, each);
}

const json::value* found(const json::value& entry, const char* member) {
    return json::find(entry, "error") != nullptr ? nullptr : json::find(entry, member);
}

void report_failure(const surroundings& around, const std::string& path, const json::value& entry) {
    int code = dh_client_code::bad_reply;
    std::string message = "bad reply";
    if (const json::value* error = json::find(entry, "error")) {
        const json::value* number = json::find(*error, "code");
        code = number != nullptr && number->IsInt() ? number->GetInt() : dh_error_code::unknown;
        message = text_of(*error, "message");
    }
    around.err << "tmctl: " << printable(path) << ": " << code << " " << message << '\n';
}

const json::value& array_of(const json::value& result, const char* member) {
    const json::value* array = json::find(result, member);
    if (array == nullptr || !array->IsArray())
        throw request_error{dh_client_code::bad_reply, "bad reply"};
    return *array;
}

std::string text_of(const json::value& object, const char* member) {
    const json::value* text = json::find(object, member);
    return text != nullptr ? value_text(*text) : "-";
}

}  // namespace tmctl
