#include "node_commands.hpp"

#include "entries.hpp"
#include "tmctl.hpp"
#include "value_text.hpp"

#include <algorithm>

namespace tmctl {
namespace {

constexpr unsigned default_history = 20;
constexpr unsigned longest_history = 1024;

struct item {
    std::string path;
    json::document value;
};

std::size_t widest(const std::vector<std::string>& texts) {
    std::size_t columns = 0;
    for (const std::string& text : texts)
        columns = std::max(columns, width(printable(text)));
    return columns;
}

// The value that a word of the command line stands for.
json::document typed_value(const std::string& word, bool plain_text) {
    json::document value;
    if (plain_text || !wire::parse(word, value))
        value.SetString(word.data(), static_cast<rapidjson::SizeType>(word.size()),
                        value.GetAllocator());
    return value;
}

std::vector<item> items_of(const arguments& given) {
    std::vector<item> items;
    for (std::size_t i = 0; i + 1 < given.operands.size(); i += 2)
        items.push_back({given.operands[i], typed_value(given.operands[i + 1], given.plain_text)});
    return items;
}

void print_json_value(const surroundings& around, const std::string& path,
                      const json::value* value) {
    json::document line(rapidjson::kObjectType);
    json::add(line, "path", path, line.GetAllocator());
    if (value != nullptr)
        json::add(line, "value", json::value(*value, line.GetAllocator()), line.GetAllocator());
    around.out << json_text(line) << '\n';
}

// A write that succeeded: its response, where there is one.
void print_written(const arguments& given, const surroundings& around, const std::string& path,
                   const json::value* response) {
    if (given.json)
        print_json_value(around, path, response);
    else if (response != nullptr)
        around.out << printable(path) << "  " << value_text(*response) << '\n';
}

int write(const arguments& given, const surroundings& around, std::chrono::seconds limit) {
    handler_connection connection(given.server, around.interrupt);
    const std::vector<item> items = items_of(given);
    const auto write_item = [&items](json::writer& out, std::size_t i) {
        out.StartObject();
        out.Key("path");
        write_text(out, items[i].path);
        out.Key("value");
        items[i].value.Accept(out);
        out.EndObject();
    };
    int status = exit_status::done;
    call_with_entries(connection, "write", "items", items.size(), write_item, limit,
                      [&](std::size_t i, const json::value& entry) {
                          if (entry.IsObject() && json::find(entry, "error") == nullptr) {
                              print_written(given, around, items[i].path,
                                            json::find(entry, "value"));
                          } else {
                              report_failure(around, items[i].path, entry);
                              status = exit_status::failed;
                          }
                      });
    return status;
}

void write_prefix(json::writer& out, const std::string& prefix) {
    out.StartObject();
    out.Key("prefix");
    write_text(out, prefix);
    out.EndObject();
}

// A server without `list` tells the same when it is asked to watch.
json::document nodes_under(handler_connection& connection, const std::string& prefix) {
    const auto params = [&prefix](json::writer& out) { write_prefix(out, prefix); };
    try {
        return connection.call("list", params);
    } catch (const request_error& error) {
        if (error.code != wire::error_code::unknown_method)
            throw;
        return connection.call("watch", params);
    }
}

void print_nodes(const json::value& nodes, const surroundings& around) {
    std::vector<std::string> paths;
    std::vector<std::string> kinds;
    std::vector<std::string> types;
    for (const json::value& node : nodes.GetArray()) {
        static const json::value nothing;
        const json::value* info = json::find(node, "info");
        paths.push_back(text_of(node, "path"));
        kinds.push_back(text_of(info != nullptr ? *info : nothing, "type"));
        types.push_back(text_of(info != nullptr ? *info : nothing, "valueType"));
    }
    const std::size_t path_columns = widest(paths);
    const std::size_t kind_columns = widest(kinds);
    for (std::size_t i = 0; i < paths.size(); ++i)
        around.out << padded(paths[i], path_columns) << "  " << padded(kinds[i], kind_columns)
                   << "  " << types[i] << '\n';
}

void print_info(const arguments& given, const surroundings& around, const std::string& path,
                const json::value& entry, const json::value& info) {
    if (given.json) {
        json::document line(rapidjson::kObjectType);
        json::add(line, "path", path, line.GetAllocator());
        for (const auto& member : entry.GetObject())
            json::add(line, {member.name.GetString(), member.name.GetStringLength()},
                      json::value(member.value, line.GetAllocator()), line.GetAllocator());
        around.out << json_text(line) << '\n';
        return;
    }
    around.out << printable(path) << "\n  " << text_of(entry, "text") << '\n';
    if (!info.IsObject())
        return;
    constexpr std::size_t name_columns = 16;
    for (const auto& member : info.GetObject())
        around.out << "  " << padded(value_text(member.name), name_columns) << "  "
                   << value_text(member.value) << '\n';
}

void print_lines_of_json(const json::value& list, const surroundings& around) {
    for (const json::value& element : list.GetArray())
        around.out << json_text(element) << '\n';
}

void write_nothing(json::writer& out) {
    out.StartObject();
    out.EndObject();
}

}  // namespace

int get(const arguments& given, const surroundings& around) {
    handler_connection connection(given.server, around.interrupt);
    const std::size_t columns = widest(given.operands);
    int status = exit_status::done;
    call_with_paths(connection, "read", given.operands,
                    [&](std::size_t i, const json::value& entry) {
                        const std::string& path = given.operands[i];
                        const json::value* value = found(entry, "value");
                        if (value == nullptr) {
                            report_failure(around, path, entry);
                            status = exit_status::failed;
                        } else if (given.json) {
                            print_json_value(around, path, value);
                        } else {
                            around.out << padded(printable(path), columns) << "  "
                                       << value_text(*value) << '\n';
                        }
                    });
    return status;
}

int set(const arguments& given, const surroundings& around) {
    return write(given, around, handler_connection::reply_limit);
}

int run_node(const arguments& given, const surroundings& around) {
    return write(given, around, handler_connection::run_limit);
}

int list(const arguments& given, const surroundings& around) {
    handler_connection connection(given.server, around.interrupt);
    const json::document result =
        nodes_under(connection, given.operands.empty() ? "" : given.operands[0]);
    const json::value& nodes = array_of(result, "nodes");
    if (given.json)
        print_lines_of_json(nodes, around);
    else
        print_nodes(nodes, around);
    return exit_status::done;
}

int info(const arguments& given, const surroundings& around) {
    handler_connection connection(given.server, around.interrupt);
    int status = exit_status::done;
    call_with_paths(connection, "info", given.operands,
                    [&](std::size_t i, const json::value& entry) {
                        const json::value* info = found(entry, "info");
                        if (info != nullptr) {
                            print_info(given, around, given.operands[i], entry, *info);
                        } else {
                            report_failure(around, given.operands[i], entry);
                            status = exit_status::failed;
                        }
                    });
    return status;
}

int history(const arguments& given, const surroundings& around) {
    const unsigned limit =
        given.operands.empty() ? default_history : parse_number(given.operands[0], longest_history);
    handler_connection connection(given.server, around.interrupt);
    const json::document result = connection.call("history", [limit](json::writer& out) {
        out.StartObject();
        out.Key("limit");
        out.Uint(limit);
        out.EndObject();
    });
    const json::value& entries = array_of(result, "entries");
    if (given.json) {
        print_lines_of_json(entries, around);
        return exit_status::done;
    }
    for (const json::value& entry : entries.GetArray())
        around.out << time_text(json::find(entry, "time")) << "  " << text_of(entry, "path") << "  "
                   << text_of(entry, "value") << '\n';
    return exit_status::done;
}

int version(const arguments& given, const surroundings& around) {
    handler_connection connection(given.server, around.interrupt);
    const json::document result = connection.call("version", write_nothing);
    if (given.json)
        around.out << json_text(result) << '\n';
    else
        around.out << text_of(result, "server") << " " << text_of(result, "version")
                   << ", protocol " << text_of(result, "protocol") << '\n';
    return exit_status::done;
}

}  // namespace tmctl
