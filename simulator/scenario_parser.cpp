#include "scenario.hpp"

#include "json.hpp"
#include "pluggable_modules.hpp"
#include "wire.hpp"

#include <fmt/format.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace simulator {
namespace {

constexpr std::size_t quoted_length = 40;  // of a text from the file in a message

std::string quoted(const json::value& text) {
    return '"' + std::string(text.GetString()).substr(0, quoted_length) + '"';
}

// One entry of the file, and what its members must be.
class entry {
  public:
    entry(const json::value& object, std::string name) : object_(object), name_(std::move(name)) {
        if (!object_.IsObject())
            fail("is no object");
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw scenario_error(name_ + ": " + what);
    }

    void allow_members(std::initializer_list<std::string_view> names) const {
        for (const auto& member : object_.GetObject()) {
            if (std::find(names.begin(), names.end(), member.name.GetString()) == names.end())
                fail("has no use for " + quoted(member.name));
        }
    }

    const json::value& member(const char* key) const {
        const json::value* const found = json::find(object_, key);
        if (found == nullptr)
            fail(fmt::format("\"{}\" is missing", key));
        return *found;
    }

    double number(const char* key, const range& allowed) const {
        const json::value& found = member(key);
        if (!found.IsNumber())
            fail(fmt::format("\"{}\" is no number", key));
        const double value = found.GetDouble();
        if (!allowed.contains(value))
            fail(fmt::format("\"{}\" is {}, outside {} to {}", key, value, allowed.low,
                             allowed.high));
        return value;
    }

    double number(const char* key, const range& allowed, double fallback) const {
        return json::find(object_, key) == nullptr ? fallback : number(key, allowed);
    }

    const json::value& text(const char* key) const {
        const json::value& found = member(key);
        if (!found.IsString())
            fail(fmt::format("\"{}\" is no text", key));
        return found;
    }

    channel_set channels() const {
        const json::value& found = member("channels");
        channel_set result;
        if (found.IsString() && found == "all")
            return result.set().reset(0);
        if (!found.IsArray()) {
            result.set(channel(found));
        } else {
            for (const json::value& one : found.GetArray())
                result.set(channel(one));
        }
        if (result.none())
            fail("\"channels\" is an empty list");
        return result;
    }

  private:
    unsigned channel(const json::value& value) const {
        if (!value.IsUint() || value.GetUint() < 1 || value.GetUint() > channel_count)
            fail(fmt::format("\"channels\" holds something that is no channel of 1 to {}",
                             channel_count));
        return value.GetUint();
    }

    const json::value& object_;
    const std::string name_;
};

plant_action parse_set(const entry& from, quantity what) {
    switch (what) {
        case quantity::launch_power:
            from.allow_members({"time", "action", "channels", "power"});
            return set_action{what, from.channels(), from.number("power", launch_power_range)};
        case quantity::span_loss:
            from.allow_members({"time", "action", "loss"});
            return set_action{what, {}, from.number("loss", span_loss_range)};
        case quantity::booster_gain:
            break;
    }
    from.allow_members({"time", "action", "gain"});
    return set_action{what, {}, from.number("gain", booster_gain_range)};
}

plant_action parse_change(const entry& from, quantity what) {
    const bool of_channels = what == quantity::launch_power;
    if (of_channels)
        from.allow_members({"time", "action", "channels", "change", "over"});
    else
        from.allow_members({"time", "action", "change", "over"});
    return change_action{what, of_channels ? from.channels() : channel_set(),
                         from.number("change", scenario_change_range),
                         from.number("over", scenario_time_range, 0.0)};
}

plant_action parse_light(const entry& from, bool lit) {
    from.allow_members({"time", "action", "channels"});
    return light_action{from.channels(), lit};
}

template <class Action>
plant_action parse_plain(const entry& from, Action action) {
    from.allow_members({"time", "action"});
    return action;
}

// Nothing where there is no such action on the light.
std::optional<plant_action> parse_plant_action(const entry& from) {
    const json::value& name = from.text("action");
    if (name == "light_channels")
        return parse_light(from, true);
    if (name == "darken_channels")
        return parse_light(from, false);
    if (name == "set_launch_power")
        return parse_set(from, quantity::launch_power);
    if (name == "change_launch_power")
        return parse_change(from, quantity::launch_power);
    if (name == "set_span_loss")
        return parse_set(from, quantity::span_loss);
    if (name == "change_span_loss")
        return parse_change(from, quantity::span_loss);
    if (name == "set_booster_gain")
        return parse_set(from, quantity::booster_gain);
    if (name == "change_booster_gain")
        return parse_change(from, quantity::booster_gain);
    if (name == "cut_fibre")
        return parse_plain(from, fibre_action{false});
    if (name == "repair_fibre")
        return parse_plain(from, fibre_action{true});
    if (name == "booster_off")
        return parse_plain(from, booster_action{false});
    if (name == "booster_on")
        return parse_plain(from, booster_action{true});
    return std::nullopt;
}

// Of the handlers that the card has.
std::string parse_handler_name(const entry& from, const std::vector<std::string>& handlers) {
    const json::value& name = from.text("handler");
    const auto found = std::find(handlers.begin(), handlers.end(), json::to<std::string>(name));
    if (found == handlers.end())
        from.fail(fmt::format("there is no handler {}; there are: {}", quoted(name),
                              fmt::join(handlers, ", ")));
    return *found;
}

std::string parse_path(const entry& from) {
    auto paths = json::to<std::string>(from.text("path"));
    if (paths.find_first_not_of(' ') == std::string::npos)
        from.fail("\"path\" is empty");
    return paths;
}

// Nothing where there is no such action on a handler.
std::optional<handler_action> parse_handler_action(const entry& from,
                                                   const std::vector<std::string>& handlers) {
    static constexpr std::array<std::pair<std::string_view, handler_change>, 9> names{{
        {"stop_handler", handler_change::stop},
        {"start_handler", handler_change::start},
        {"restart_handler", handler_change::restart},
        {"freeze_handler", handler_change::freeze},
        {"thaw_handler", handler_change::thaw},
        {"slow_handler", handler_change::slow},
        {"fail_path", handler_change::fail_path},
        {"mistype_path", handler_change::mistype_path},
        {"heal_path", handler_change::heal_path},
    }};
    const auto name = json::to<std::string>(from.text("action"));
    const auto* const known = std::find_if(names.begin(), names.end(),
                                           [&](const auto& one) { return one.first == name; });
    if (known == names.end())
        return std::nullopt;
    handler_action action{known->second, parse_handler_name(from, handlers), 0.0, {}};
    switch (action.what) {
        case handler_change::slow:
            from.allow_members({"time", "action", "handler", "delay"});
            action.delay = from.number("delay", handler_delay_range);
            break;
        case handler_change::fail_path:
        case handler_change::mistype_path:
        case handler_change::heal_path:
            from.allow_members({"time", "action", "handler", "path"});
            action.path = parse_path(from);
            break;
        default:
            from.allow_members({"time", "action", "handler"});
            break;
    }
    return action;
}

std::size_t parse_module(const entry& from) {
    const json::value& name = from.text("module");
    const auto* const found = std::find_if(module_names.begin(), module_names.end(),
                                           [&](const char* one) { return name == one; });
    if (found == module_names.end())
        from.fail(fmt::format("there is no module {}; there are: {}", quoted(name),
                              fmt::join(module_names, ", ")));
    return static_cast<std::size_t>(found - module_names.begin());
}

// Nothing where there is no such action on a module.
std::optional<module_action> parse_module_action(const entry& from) {
    const json::value& name = from.text("action");
    if (name != "pull_module" && name != "insert_module")
        return std::nullopt;
    from.allow_members({"time", "action", "module"});
    return module_action{parse_module(from), name == "insert_module"};
}

std::vector<reflector> parse_reflector_list(const entry& from) {
    try {
        return parse_reflectors(json::to<std::string>(from.text("reflectors")));
    } catch (const std::invalid_argument& error) {
        from.fail(fmt::format("\"reflectors\" is wrong: {}", error.what()));
    }
}

// Nothing where there is no such action on the line.
std::optional<line_action> parse_line_action(const entry& from) {
    const json::value& name = from.text("action");
    if (name == "cut_line") {
        from.allow_members({"time", "action", "distance"});
        return line_cut{from.number("distance", line_distance_range)};
    }
    if (name == "repair_line") {
        from.allow_members({"time", "action"});
        return line_repair{};
    }
    if (name == "set_line_loss") {
        from.allow_members({"time", "action", "loss"});
        return line_loss{from.number("loss", line_loss_range)};
    }
    if (name == "set_reflectors") {
        from.allow_members({"time", "action", "reflectors"});
        return line_reflectors{parse_reflector_list(from)};
    }
    return std::nullopt;
}

// Nothing where there is no such action on the software.
std::optional<software_action> parse_software_action(const entry& from) {
    if (from.text("action") != "install_software")
        return std::nullopt;
    from.allow_members({"time", "action", "version"});
    auto version = json::to<std::string>(from.text("version"));
    if (version.empty())
        from.fail("\"version\" is empty");
    return software_action{std::move(version)};
}

void parse_action(const entry& from, const std::vector<std::string>& handlers, scenario& into) {
    const double time = from.number("time", scenario_time_range);
    const json::value& name = from.text("action");
    if (auto on_plant = parse_plant_action(from))
        into.on_plant.push_back({time, name.GetString(), std::move(*on_plant)});
    else if (auto on_handler = parse_handler_action(from, handlers))
        into.on_handlers.push_back({time, name.GetString(), std::move(*on_handler)});
    else if (const auto on_module = parse_module_action(from))
        into.on_modules.push_back({time, name.GetString(), *on_module});
    else if (auto on_line = parse_line_action(from))
        into.on_line.push_back({time, name.GetString(), std::move(*on_line)});
    else if (auto on_software = parse_software_action(from))
        into.on_software.push_back({time, name.GetString(), std::move(*on_software)});
    else
        from.fail("there is no action " + quoted(name));
}

template <class Action>
void sort_by_time(std::vector<timed<Action>>& actions) {
    std::stable_sort(actions.begin(), actions.end(),
                     [](const auto& a, const auto& b) { return a.time < b.time; });
}

// Why a text was refused that ends in a NUL. Works without a stack of its own,
// whatever the nesting.
std::string why_not_json(const std::string& text) {
    constexpr unsigned strict =
        rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;
    rapidjson::StringStream stream(text.c_str());
    rapidjson::BaseReaderHandler<> nobody;
    rapidjson::Reader reader;
    const rapidjson::ParseResult result = reader.Parse<strict>(stream, nobody);
    if (!result)
        return fmt::format(
            "is not JSON: line {}: {}",
            1 + std::count(text.begin(),
                           text.begin() + static_cast<std::ptrdiff_t>(result.Offset()), '\n'),
            rapidjson::GetParseError_En(result.Code()));
    return fmt::format("is nested deeper than {}, or holds what is no text", wire::max_nesting);
}

}  // namespace

scenario parse_scenario(std::string_view text, const std::vector<std::string>& handlers) {
    wire::parser parser;
    const json::value* const document = parser.parse(text);
    if (document == nullptr)
        throw scenario_error(why_not_json(std::string(text)));
    const entry top(*document, "the file");
    top.allow_members({"description", "actions"});
    if (json::find(*document, "description") != nullptr)
        top.text("description");
    const json::value& actions = top.member("actions");
    if (!actions.IsArray())
        top.fail("\"actions\" is no list");
    if (actions.Size() > max_scenario_actions)
        top.fail(fmt::format("\"actions\" has more than {} entries", max_scenario_actions));

    scenario result;
    for (rapidjson::SizeType index = 0; index < actions.Size(); ++index)
        parse_action(entry(actions[index], fmt::format("actions[{}]", index)), handlers, result);
    sort_by_time(result.on_plant);
    sort_by_time(result.on_handlers);
    sort_by_time(result.on_modules);
    sort_by_time(result.on_line);
    sort_by_time(result.on_software);
    return result;
}

scenario load_scenario(const std::string& file, const std::vector<std::string>& handlers) {
    std::ifstream in(file, std::ios::binary);
    std::string text(max_scenario_bytes + 1, '\0');
    if (in.is_open()) {
        in.read(text.data(), static_cast<std::streamsize>(text.size()));
        text.resize(static_cast<std::size_t>(in.gcount()));
    }
    if (!in.is_open() || in.bad())
        throw scenario_error("scenario " + file + ": cannot be read");
    if (text.size() > max_scenario_bytes)
        throw scenario_error(
            fmt::format("scenario {}: is longer than {} bytes", file, max_scenario_bytes));
    try {
        return parse_scenario(text, handlers);
    } catch (const scenario_error& error) {
        throw scenario_error("scenario " + file + ": " + error.what());
    }
}

}  // namespace simulator
