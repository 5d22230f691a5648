#include "scenario.hpp"

#include "json.hpp"
#include "wire.hpp"

#include <fmt/format.h>
#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <initializer_list>
#include <iterator>
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

scenario_action parse_set(const entry& from, quantity what) {
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

scenario_action parse_change(const entry& from, quantity what) {
    const bool of_channels = what == quantity::launch_power;
    if (of_channels)
        from.allow_members({"time", "action", "channels", "change", "over"});
    else
        from.allow_members({"time", "action", "change", "over"});
    return change_action{what, of_channels ? from.channels() : channel_set(),
                         from.number("change", scenario_change_range),
                         from.number("over", scenario_time_range, 0.0)};
}

scenario_action parse_light(const entry& from, bool lit) {
    from.allow_members({"time", "action", "channels"});
    return light_action{from.channels(), lit};
}

template <class Action>
scenario_action parse_plain(const entry& from, Action action) {
    from.allow_members({"time", "action"});
    return action;
}

scenario_action parse_action(const entry& from) {
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
    from.fail("there is no action " + quoted(name));
}

timed_action parse_timed_action(const json::value& object, std::size_t index) {
    const entry from(object, fmt::format("actions[{}]", index));
    const double time = from.number("time", scenario_time_range);
    return {time, from.text("action").GetString(), parse_action(from)};
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

scenario parse_scenario(std::string_view text) {
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
    for (const json::value& action : actions.GetArray())
        result.push_back(parse_timed_action(action, result.size()));
    std::stable_sort(result.begin(), result.end(),
                     [](const timed_action& a, const timed_action& b) { return a.time < b.time; });
    return result;
}

scenario load_scenario(const std::string& file) {
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
        return parse_scenario(text);
    } catch (const scenario_error& error) {
        throw scenario_error("scenario " + file + ": " + error.what());
    }
}

}  // namespace simulator
