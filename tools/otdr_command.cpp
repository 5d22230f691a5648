#include "otdr_command.hpp"

#include "entries.hpp"
#include "reflection_trace.hpp"
#include "tmctl.hpp"
#include "value_text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace tmctl {
namespace {

constexpr unsigned measurement_count = 5;
constexpr const char* reference_path = "otdr/data/refpoint";
constexpr const char* pointer_path = "otdr/data/pointer";

std::string measurement_path(unsigned number) {
    return fmt::format("otdr/data/measurement/{}", number);
}

// 1 to 5, as the traffic manager numbers its measurements.
unsigned parse_measurement(const std::string& word) {
    const unsigned number = parse_number(word, measurement_count);
    if (number == 0)
        throw usage_error{"measurements are numbered from 1 to 5"};
    return number;
}

// The value in an entry of a reply. Throws request_error where it is an error.
const json::value& value_of(const json::value& entry) {
    if (const json::value* const value = json::find(entry, "value"))
        return *value;
    const json::value* const error = json::find(entry, "error");
    const json::value* const code = error != nullptr ? json::find(*error, "code") : nullptr;
    throw request_error{code != nullptr && code->IsInt() ? code->GetInt() : 71,
                        error != nullptr ? text_of(*error, "message") : "bad reply"};
}

class otdr_client {
  public:
    otdr_client(const arguments& given, const surroundings& around)
        : server_(given.server, around.interrupt) {}

    json::document read(const std::string& path) {
        json::document value;
        call_with_paths(server_, "read", {path}, [&](std::size_t, const json::value& entry) {
            value.CopyFrom(value_of(entry), value.GetAllocator());
        });
        return value;
    }

    // Whether the command was carried out in full.
    template <class T>
    bool run(const std::string& command, T argument) {
        bool result = false;
        const auto write_item = [&](json::writer& out, std::size_t) {
            out.StartObject();
            out.Key("path");
            write_text(out, "otdr/command/" + command);
            out.Key("value");
            if constexpr (std::is_same_v<T, bool>)
                out.Bool(argument);
            else
                out.Uint(argument);
            out.EndObject();
        };
        call_with_entries(server_, "write", "items", 1, write_item, handler_connection::run_limit,
                          [&](std::size_t, const json::value& entry) {
                              const json::value& value = value_of(entry);
                              result = value.IsBool() && value.GetBool();
                          });
        return result;
    }

  private:
    handler_connection server_;
};

void print(const surroundings& around, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        around.out << line << '\n';
}

std::string time_of(const reflection_trace& trace) {
    json::document milliseconds;
    constexpr std::int64_t most = INT64_MAX / 1000;
    if (trace.timestamp < 0 || trace.timestamp > most)
        return "-";
    milliseconds.SetInt64(trace.timestamp * 1000);
    return time_text(&milliseconds);
}

std::string summary_of(const std::string& name, const std::optional<reflection_trace>& trace) {
    if (!trace)
        return fmt::format("{:<12}  empty", name);
    const auto ghosts = std::count_if(trace->reflections.begin(), trace->reflections.end(),
                                      [](const trace_reflection& each) { return each.is_ghost; });
    return fmt::format(
        "{:<12}  {}  {} reflections, {} of them ghosts, fibre {}", name, time_of(*trace),
        trace->reflections.size(), ghosts,
        trace->fiber_length > 0
            ? fmt::format("{:.3f} km", static_cast<double>(trace->fiber_length) / 1000.0)
            : "of unknown length");
}

int show_measurement(const arguments& given, const surroundings& around, otdr_client& client,
                     unsigned number) {
    const json::document measurement = client.read(measurement_path(number));
    if (given.json) {
        around.out << json_text(measurement) << '\n';
        return exit_status::done;
    }
    const auto trace = trace_from(measurement);
    print(around, {summary_of(fmt::format("measurement {}", number), trace)});
    if (!trace)
        return exit_status::failed;
    const auto reference = trace_from(client.read(reference_path));
    print(around, trace_picture(*trace, reference));
    print(around, trace_table(*trace, reference));
    return exit_status::done;
}

int measure(const arguments& given, const surroundings& around, otdr_client& client) {
    client.run("measure", true);
    const json::document pointer = client.read(pointer_path);
    // That of the next one.
    const unsigned next = pointer.IsUint() ? pointer.GetUint() % measurement_count : 0;
    return show_measurement(given, around, client, next == 0 ? measurement_count : next);
}

int list(const arguments& given, const surroundings& around, otdr_client& client) {
    std::vector<std::pair<std::string, std::string>> named;
    for (unsigned number = 1; number <= measurement_count; ++number)
        named.emplace_back(fmt::format("measurement {}", number), measurement_path(number));
    named.emplace_back("reference", reference_path);
    for (const auto& [name, path] : named) {
        const json::document measurement = client.read(path);
        print(around,
              {given.json ? json_text(measurement) : summary_of(name, trace_from(measurement))});
    }
    return exit_status::done;
}

int save(const surroundings& around, otdr_client& client, unsigned number) {
    if (client.run("saveRefpoint", number))
        return exit_status::done;
    around.err << "tmctl: the reference point is set, but could not be stored\n";
    return exit_status::failed;
}

}  // namespace

int otdr(const arguments& given, const surroundings& around) {
    const std::string what = given.operands.empty() ? "list" : given.operands[0];
    const bool has_number = given.operands.size() == 2;
    const bool wants_number = what == "show" || what == "save" || what == "delete";
    if (!wants_number && !(what == "list" && given.operands.empty()) && what != "measure")
        throw usage_error{"otdr knows measure, show N, save N and delete N, not '" +
                          printable(what) + "'"};
    if (has_number != wants_number)
        throw usage_error{"otdr " + what +
                          (wants_number ? " needs a number" : " takes no further word")};
    const bool is_reference = what == "delete" && given.operands[1] == "ref";
    const unsigned number = has_number && !is_reference ? parse_measurement(given.operands[1]) : 0;

    otdr_client client(given, around);
    if (what == "measure")
        return measure(given, around, client);
    if (what == "show")
        return show_measurement(given, around, client, number);
    if (what == "save")
        return save(around, client, number);
    if (is_reference)
        return client.run("deleteRefpoint", true) ? exit_status::done : exit_status::failed;
    if (what == "delete")
        return client.run("deleteMeasurement", number) ? exit_status::done : exit_status::failed;
    return list(given, around, client);
}

}  // namespace tmctl
