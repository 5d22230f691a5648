// Chief header of the value framework: all node classes, and the proxy that
// functional objects are given to reach the tree and the device handlers.
#pragma once

#include "command.hpp"
#include "config_param.hpp"
#include "const_value.hpp"
#include "device_handler_client.hpp"
#include "filtered_value.hpp"
#include "status_value.hpp"
#include "value_group.hpp"
#include "volatile_value.hpp"

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace dh::util {

// What every functional object has in common: the tree that it publishes in,
// the group that ticks its nodes, and the clients of the device handlers.
class proxy : public std::enable_shared_from_this<proxy> {
  public:
    // `main_mutex` is the program's, and outlives the proxy.
    proxy(dh_db& db, std::mutex* main_mutex) : db_(db), main_mutex_(main_mutex) {}

    dh_db& db() { return db_; }
    dh::api::value_group& value_group() { return value_group_; }
    std::mutex& main_mutex() { return *main_mutex_; }

    // Clients known to the connection supervision, by name. Changed by the
    // start-up only, under the main mutex.
    std::vector<std::shared_ptr<device_handler_client_api>> clients;
    // Paths and prefixes that are kept out of the plain mirroring.
    std::set<std::string> excluded_prefixes;

  private:
    dh_db& db_;
    dh::api::value_group value_group_{1000, 0, 0};
    std::mutex* const main_mutex_;
};

}  // namespace dh::util
