#include "fibre_trace.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>
#include <stdexcept>
#include <string_view>

namespace simulator {
namespace {

constexpr range reflectance_range{-100.0, 0.0};
constexpr std::size_t max_reflectors = 64;

constexpr double weakest_seen = -75.0;  // of what was sent, dB
constexpr int resolution = 5;           // m; nearer ones are one

double number(std::string_view text, const range& allowed) {
    double value = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !allowed.contains(value))
        throw std::invalid_argument(
            fmt::format("not within {} to {}: {}", allowed.low, allowed.high, text));
    return value;
}

class trace {
  public:
    explicit trace(double loss_per_km) : loss_per_m_(loss_per_km / 1000.0) {}

    // Light that comes back as if from that distance, reflected so much in all.
    void add(double distance, double reflectance) {
        if (reflectance - 2.0 * distance * loss_per_m_ >= weakest_seen)
            seen_.push_back(static_cast<int>(std::lround(distance)));
    }

    std::vector<int> distances() const {
        std::vector<int> sorted = seen_;
        std::sort(sorted.begin(), sorted.end());
        std::vector<int> apart;
        for (const int distance : sorted) {
            if (apart.empty() || distance - apart.back() >= resolution)
                apart.push_back(distance);
        }
        return apart;
    }

  private:
    const double loss_per_m_;
    std::vector<int> seen_;
};

}  // namespace

std::vector<reflector> parse_reflectors(const std::string& text) {
    std::vector<reflector> found;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        const auto colon = word.find(':');
        if (colon == std::string::npos)
            throw std::invalid_argument("not DISTANCE:REFLECTANCE: " + word);
        if (found.size() == max_reflectors)
            throw std::invalid_argument("too many reflectors");
        const std::string_view view = word;
        found.push_back({number(view.substr(0, colon), line_distance_range),
                         number(view.substr(colon + 1), reflectance_range)});
    }
    std::stable_sort(found.begin(), found.end(), [](const reflector& a, const reflector& b) {
        return a.distance < b.distance;
    });
    return found;
}

std::string text_of(const std::vector<reflector>& reflectors) {
    std::string text;
    for (const reflector& each : reflectors)
        text += fmt::format("{}{}:{}", text.empty() ? "" : " ", each.distance, each.reflectance);
    return text;
}

std::vector<int> trace_of(const std::vector<reflector>& reflectors, double loss_per_km) {
    trace seen(loss_per_km);
    for (const reflector& first : reflectors) {
        seen.add(first.distance, first.reflectance);
        // Back from the first, forth again from one before it, and back from any behind that.
        for (const reflector& second : reflectors) {
            for (const reflector& third : reflectors) {
                if (second.distance < first.distance && second.distance < third.distance)
                    seen.add(first.distance - second.distance + third.distance,
                             first.reflectance + second.reflectance + third.reflectance);
            }
        }
    }
    return seen.distances();
}

}  // namespace simulator
