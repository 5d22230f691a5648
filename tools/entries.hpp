// Requests of many paths, and the entries that answer them.
#pragma once

#include "handler_connection.hpp"
#include "surroundings.hpp"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tmctl {

// Calls `each` with the number of a path and its entry in the result of the
// method, in the order of the paths, which are sent in as many requests as it takes.
using entry_handler = std::function<void(std::size_t index, const json::value& entry)>;
void call_with_paths(handler_connection&, const char* method, const std::vector<std::string>& paths,
                     const entry_handler& each);

// The same for any list of `count` entries; `write_entry` writes entry `index` of the request.
using entry_writer = std::function<void(json::writer&, std::size_t index)>;
void call_with_entries(handler_connection&, const char* method, const char* list_name,
                       std::size_t count, const entry_writer& write_entry,
                       std::chrono::seconds limit, const entry_handler& each);

// The member of an entry that is fine; null where the entry failed.
const json::value* found(const json::value& entry, const char* member);

// Says on the standard error why an entry failed.
void report_failure(const surroundings&, const std::string& path, const json::value& entry);

// The member as an array; throws request_error 71 where there is none.
const json::value& array_of(const json::value& result, const char* member);

// The member's text, or "-".
std::string text_of(const json::value& object, const char* member);

void write_text(json::writer&, std::string_view text);

}  // namespace tmctl
