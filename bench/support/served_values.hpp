// Values that a handler of a benchmark answers at once.
#pragma once

#include "dh_db.hpp"
#include "status_value.hpp"

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace bench {

using nodes = std::vector<std::shared_ptr<dh_db_leaf_node>>;

template <class T>
void serve_value(nodes& kept, dh_db& db, const std::string& path, T value) {
    kept.push_back(dh::api::status_value<T>::create(db, path, std::move(value), 0));
}

}  // namespace bench
