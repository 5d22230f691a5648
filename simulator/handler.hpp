// A device handler of the card: its tree on a socket of its own.
#pragma once

#include "device_handler_api.hpp"
#include "value_group.hpp"

#include <functional>
#include <memory>
#include <string>

namespace simulator {

// What a handler is called, where it is reached (below "/tmp/device_handlers/"),
// and how it fills its tree. `publish` makes the nodes, adds those that are
// polled to the group, and returns the object that has to outlive the nodes'
// use; null where there is none. It may be called again for a handler that
// returns.
struct handler_plan {
    using publisher = std::function<std::shared_ptr<void>(dh_db&, dh::api::value_group&)>;

    std::string name;
    std::string socket;
    publisher publish;
};

// Serves the plan's tree from its construction to its destruction, which
// removes the socket. The constructor throws as dh_server does.
class handler {
  public:
    handler(const handler_plan& plan, const std::string& root)
        : server_(plan.name, root + "/tmp/device_handlers/" + plan.socket),
          group_(poll_period_ms, 0, 0) {
        owner_ = plan.publish(server_.db(), group_);
    }

  private:
    static constexpr unsigned poll_period_ms = 1000;

    // Ended in reverse order: ticks, sessions, and then what both call.
    std::shared_ptr<void> owner_;
    dh_server server_;
    dh::api::value_group group_;
};

}  // namespace simulator
