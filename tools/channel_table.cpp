#include "channel_table.hpp"

#include "value_text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace tmctl {
namespace {

constexpr int band_end = 4;  // columns from the middle
constexpr int bar_end = 8;
constexpr double column = band / (band_end - 1);  // dB

std::string number(const std::optional<double>& value, const char* format) {
    return value ? fmt::format(fmt::runtime(format), *value) : "-";
}

std::string level(const std::optional<double>& dbm) {
    return number(dbm, "{:.2f}");
}

std::string word(const std::optional<std::string>& text) {
    return text ? printable(*text) : "-";
}

// How many columns from the middle a difference reaches.
int reach(double away) {
    if (away <= band)
        return static_cast<int>(std::lround(away / column));
    const double beyond = std::ceil((away - band) / column);
    return static_cast<int>(std::min<double>(band_end + beyond, bar_end));
}

std::string row(const channel_readings& channel) {
    const std::string line =
        fmt::format("{:>2} {:>6} {:>6} {:>6} {:>6} {:>5} {} {} {:<10} {}", channel.channel,
                    level(channel.wanted), level(channel.rx), level(channel.tx),
                    number(channel.difference(), "{:+.2f}"), level(channel.attenuation),
                    cell(word(channel.mode), 5), cell(word(channel.port), 7), name(channel.state()),
                    difference_bar(channel.difference()));
    return line.substr(0, line.find_last_not_of(' ') + 1);
}

void add(json::value& object, const char* key, const std::optional<double>& number,
         json::allocator& memory) {
    json::add(object, key, number ? json::value(*number) : json::value(), memory);
}

void add(json::value& object, const char* key, const std::optional<std::string>& text,
         json::allocator& memory) {
    json::add(object, key, text ? json::from(*text, memory) : json::value(), memory);
}

double seconds(program_time span) {
    return std::chrono::duration<double>(span).count();
}

std::string fine_steps(const std::vector<channel_readings>& channels) {
    const auto [fewest, most] = std::ranges::minmax(
        channels, {}, [](const channel_readings& channel) { return channel.progress.fine; });
    return fewest.progress.fine == most.progress.fine
               ? fmt::format("{} in each channel", most.progress.fine)
               : fmt::format("{} to {} a channel", fewest.progress.fine, most.progress.fine);
}

}  // namespace

std::string difference_bar(std::optional<double> difference) {
    if (!difference)
        return std::string(2 * bar_end + 1, ' ');
    std::string bar = "    [   |   ]    ";
    const int sign = *difference < 0.0 ? -1 : 1;
    const int reached = reach(std::abs(*difference));
    const auto at = [&bar, sign](int columns) -> char& {
        const int column = bar_end + sign * columns;
        return bar[static_cast<std::size_t>(column)];
    };
    for (int i = 1; i <= reached; ++i)
        at(i) = '#';
    if (reached == bar_end)
        at(bar_end) = sign < 0 ? '<' : '>';
    return bar;
}

std::vector<std::string> table(const std::vector<channel_readings>& channels) {
    std::vector<std::string> lines{
        "ch wanted     rx     tx   diff   att mode  port    state      -1.4 dB    +1.4 dB"};
    for (const channel_readings& channel : channels)
        lines.push_back(row(channel));
    return lines;
}

std::vector<std::string> summary(const std::vector<channel_readings>& channels) {
    if (channels.empty())
        return {};
    const channel_readings& longest = *std::ranges::max_element(
        channels, {}, [](const channel_readings& c) { return c.progress.to_band; });
    const channel_readings& slowest = *std::ranges::max_element(
        channels, {}, [](const channel_readings& c) { return c.progress.way_to_band(); });
    const channel_readings& furthest = *std::ranges::max_element(
        channels, {},
        [](const channel_readings& c) { return std::abs(c.difference().value_or(0.0)); });
    return {
        fmt::format("channels settled           {} (within {} dB)", channels.size(), band),
        fmt::format("most cycles to its band    {}, channel {}", longest.progress.to_band,
                    longest.channel),
        fmt::format("longest way to its band    {:.1f} s, channel {}",
                    seconds(slowest.progress.way_to_band()), slowest.channel),
        fmt::format("fine-tuning steps since    {}", fine_steps(channels)),
        fmt::format("largest difference left    {:+.2f} dB, channel {}",
                    furthest.difference().value_or(0.0), furthest.channel),
    };
}

std::string channel_json(const channel_readings& channel) {
    json::document object(rapidjson::kObjectType);
    auto& memory = object.GetAllocator();
    json::add(object, "channel", channel.channel, memory);
    add(object, "wanted", channel.wanted, memory);
    add(object, "rx", channel.rx, memory);
    add(object, "tx", channel.tx, memory);
    add(object, "difference", channel.difference(), memory);
    add(object, "attenuation", channel.attenuation, memory);
    add(object, "mode", channel.mode, memory);
    add(object, "port", channel.port, memory);
    json::add(object, "light", channel.light ? json::value(*channel.light) : json::value(), memory);
    json::add(object, "state", name(channel.state()), memory);
    json::add(object, "cyclesToBand", channel.progress.to_band, memory);
    json::add(object, "fineTuningSteps", channel.progress.fine, memory);
    return json_text(object);
}

}  // namespace tmctl
