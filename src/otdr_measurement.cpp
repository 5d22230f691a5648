#include "otdr_measurement.hpp"

#include <algorithm>

std::span<otdr_reflection> otdr_measurement::reported() {
    return std::span(reflections).first(std::min<std::size_t>(num_of_reflections, max_reflections));
}

std::span<const otdr_reflection> otdr_measurement::reported() const {
    return std::span(reflections).first(std::min<std::size_t>(num_of_reflections, max_reflections));
}

json::document as_json(const otdr_measurement& measurement) {
    json::document object(rapidjson::kObjectType);
    auto& memory = object.GetAllocator();
    json::value distances(rapidjson::kArrayType);
    json::value ghosts(rapidjson::kArrayType);
    for (const otdr_reflection& each : measurement.reported()) {
        distances.PushBack(each.distance, memory);
        ghosts.PushBack(each.is_ghost, memory);
    }
    json::add(object, "valid", measurement.valid, memory);
    json::add(object, "timestamp", static_cast<long long>(measurement.timestamp), memory);
    json::add(object, "numOfReflections", static_cast<int>(measurement.num_of_reflections), memory);
    json::add(object, "oscFiberlength", measurement.osc_fiber_length, memory);
    json::add(object, "oscLinkUp", measurement.osc_link_up, memory);
    json::add(object, "distances", std::move(distances), memory);
    json::add(object, "ghosts", std::move(ghosts), memory);
    return object;
}
