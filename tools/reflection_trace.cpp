#include "reflection_trace.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

namespace tmctl {
namespace {

constexpr std::int64_t match_limit = 70;  // m
constexpr std::size_t picture_columns = 64;

std::optional<std::int64_t> number(const json::value& object, const char* key) {
    const json::value* const found = json::find(object, key);
    if (found == nullptr || !found->IsInt64())
        return std::nullopt;
    return found->GetInt64();
}

bool is_true(const json::value* flag) {
    return flag != nullptr && flag->IsBool() && flag->GetBool();
}

// Two reflections that may be the same one, by their places in the traces.
struct candidate_pair {
    std::size_t measured;
    std::size_t reference;
    std::int64_t apart;  // m
};

std::vector<candidate_pair> pairs_from_the_nearest(const reflection_trace& measured,
                                                   const reflection_trace& reference) {
    std::vector<candidate_pair> pairs;
    for (std::size_t i = 0; i < measured.reflections.size(); ++i) {
        for (std::size_t k = 0; k < reference.reflections.size(); ++k) {
            const std::int64_t apart =
                std::abs(measured.reflections[i].distance - reference.reflections[k].distance);
            if (apart <= match_limit)
                pairs.push_back({i, k, apart});
        }
    }
    std::ranges::stable_sort(pairs, {}, &candidate_pair::apart);
    return pairs;
}

// What has changed since the reference point, for people.
std::string change_text(const trace_comparison& both) {
    if (!both.reference)
        return "new";
    if (!both.measured)
        return "gone";
    const std::int64_t moved = both.measured->distance - both.reference->distance;
    const std::string place = moved == 0 ? "same" : fmt::format("{:+} m", moved);
    if (both.measured->is_ghost == both.reference->is_ghost)
        return place;
    return place + (both.reference->is_ghost ? ", was a ghost" : ", was a reflection");
}

std::string picture_line(const reflection_trace& trace, std::int64_t end) {
    std::string line(picture_columns, '-');
    for (const trace_reflection& each : trace.reflections) {
        const auto column =
            static_cast<std::size_t>(std::clamp<std::int64_t>(each.distance, 0, end) *
                                     static_cast<std::int64_t>(picture_columns - 1) / end);
        // A real one is not hidden by its ghost.
        if (line[column] != '|')
            line[column] = each.is_ghost ? 'g' : '|';
    }
    return line;
}

std::int64_t furthest(const reflection_trace& trace) {
    std::int64_t distance = trace.fiber_length;
    for (const trace_reflection& each : trace.reflections)
        distance = std::max(distance, each.distance);
    return distance;
}

}  // namespace

std::optional<reflection_trace> trace_from(const json::value& measurement) {
    const json::value* const distances = json::find(measurement, "distances");
    const json::value* const ghosts = json::find(measurement, "ghosts");
    const auto timestamp = number(measurement, "timestamp");
    const auto length = number(measurement, "oscFiberlength");
    if (!is_true(json::find(measurement, "valid")) || !timestamp || !length ||
        distances == nullptr || !distances->IsArray() || ghosts == nullptr || !ghosts->IsArray() ||
        distances->Size() != ghosts->Size())
        return std::nullopt;
    reflection_trace trace{*timestamp, *length, {}};
    for (rapidjson::SizeType i = 0; i < distances->Size(); ++i) {
        if (!(*distances)[i].IsUint() || !(*ghosts)[i].IsBool())
            return std::nullopt;
        trace.reflections.push_back({(*distances)[i].GetInt64(), (*ghosts)[i].GetBool()});
    }
    return trace;
}

std::vector<trace_comparison> compare(const reflection_trace& measured,
                                      const reflection_trace& reference) {
    std::vector<trace_comparison> all;
    for (const trace_reflection& each : measured.reflections)
        all.push_back({each, std::nullopt});
    std::vector<bool> is_taken(reference.reflections.size(), false);
    for (const candidate_pair& pair : pairs_from_the_nearest(measured, reference)) {
        if (all[pair.measured].reference || is_taken[pair.reference])
            continue;
        all[pair.measured].reference = reference.reflections[pair.reference];
        is_taken[pair.reference] = true;
    }
    for (std::size_t i = 0; i < reference.reflections.size(); ++i) {
        if (!is_taken[i])
            all.push_back({std::nullopt, reference.reflections[i]});
    }
    std::ranges::stable_sort(all, {}, [](const trace_comparison& both) {
        return both.measured ? both.measured->distance : both.reference->distance;
    });
    return all;
}

std::vector<std::string> trace_table(const reflection_trace& measured,
                                     const std::optional<reflection_trace>& reference) {
    std::vector<std::string> lines{fmt::format("{:>3}  {:>11}  {:<10}{}", "#", "distance", "kind",
                                               reference ? "  since the reference point" : "")};
    const auto all = compare(measured, reference.value_or(measured));
    int count = 0;
    for (const trace_comparison& both : all) {
        const trace_reflection& shown = both.measured ? *both.measured : *both.reference;
        const std::string place = both.measured ? std::to_string(++count) : "-";
        lines.push_back(fmt::format("{:>3}  {:>8} m   {:<10}{}", place, shown.distance,
                                    shown.is_ghost ? "ghost" : "reflection",
                                    reference ? "  " + change_text(both) : ""));
    }
    return lines;
}

std::vector<std::string> trace_picture(const reflection_trace& measured,
                                       const std::optional<reflection_trace>& reference) {
    const std::int64_t end =
        std::max<std::int64_t>({furthest(measured), reference ? furthest(*reference) : 0, 1});
    std::vector<std::string> lines{fmt::format("card  {}  {:.3f} km", picture_line(measured, end),
                                               static_cast<double>(end) / 1000.0)};
    if (reference)
        lines.push_back(fmt::format("ref   {}", picture_line(*reference, end)));
    return lines;
}

}  // namespace tmctl
