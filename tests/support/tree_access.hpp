// A tree as a client of its server sees it.
#pragma once

#include "device_handler_client.hpp"
#include "json.hpp"

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace test {

// What a read of each path answers now, as the JSON text of its entry, by path.
inline std::map<std::string, std::string> values_under(device_handler_client& client,
                                                       const std::vector<std::string>& paths) {
    std::map<std::string, std::string> values;
    constexpr std::size_t batch = 500;
    for (std::size_t begin = 0; begin < paths.size(); begin += batch) {
        json::document params(rapidjson::kObjectType);
        json::value list(rapidjson::kArrayType);
        const std::size_t end = std::min(begin + batch, paths.size());
        for (std::size_t i = begin; i < end; ++i)
            list.PushBack(json::from(paths[i], params.GetAllocator()), params.GetAllocator());
        json::add(params, "paths", std::move(list), params.GetAllocator());
        const json::document entries = client.call("read", params);
        for (std::size_t i = begin; i < end; ++i)
            values[paths[i]] = json::to_text(entries[static_cast<rapidjson::SizeType>(i - begin)]);
    }
    return values;
}

inline std::vector<std::string> paths_under(device_handler_client& client,
                                            const std::string& prefix) {
    json::document params(rapidjson::kObjectType);
    json::add(params, "prefix", prefix, params.GetAllocator());
    const json::document listing = client.call("list", params);
    std::vector<std::string> paths;
    for (const json::value& node : listing["nodes"].GetArray())
        paths.emplace_back(node["path"].GetString());
    return paths;
}

// Writes the JSON text's value; the entry of the answer, "{}" where it was taken.
inline std::string write_json(device_handler_client& client, const std::string& path,
                              const std::string& text,
                              std::chrono::milliseconds time_limit = std::chrono::seconds(10)) {
    json::document params(rapidjson::kObjectType);
    auto& memory = params.GetAllocator();
    json::document value(&memory);
    value.Parse(text.data(), text.size());
    json::value item(rapidjson::kObjectType);
    json::add(item, "path", path, memory);
    json::add(item, "value", std::move(value), memory);
    json::value items(rapidjson::kArrayType);
    items.PushBack(std::move(item), memory);
    json::add(params, "items", std::move(items), memory);
    return json::to_text(client.call("write", params, time_limit)[0]);
}

}  // namespace test
