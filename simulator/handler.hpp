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
// polled to the group, and returns the object that belongs to this tree: owner
// of nodes, or what keeps them up to date; null where there is none. It may be
// called again for a handler that returns. `port` is where a card in the neighbour slot
// reaches it; 0 where it does not.
struct handler_plan {
    using publisher = std::function<std::shared_ptr<void>(dh_db&, dh::api::value_group&)>;

    std::string name;
    std::string socket;
    publisher publish;
    unsigned port = 0;
};

inline constexpr unsigned booster_port = 4500;
inline constexpr unsigned system_info_port = 2200;

// Where a card serves its handlers: below a folder, which is empty for the
// host's own root, and on the interface to the neighbour slot, or on none.
struct handler_place {
    std::string root;
    std::string interface = {};
};

// Serves the plan's tree from its construction to its destruction, which tells
// the subscribers and removes the socket. The constructor throws as dh_server
// does.
class handler {
  public:
    handler(const handler_plan& plan, const handler_place& place,
            dh_interposer* interposer = nullptr)
        : server_(plan.name, place.root + "/tmp/device_handlers/" + plan.socket, {}, interposer),
          group_(poll_period_ms, 0, 0) {
        owner_ = plan.publish(server_.db(), group_);
        if (plan.port != 0 && !place.interface.empty())
            server_.listen_on_interface(place.interface, plan.port);
    }

    // The owner goes while the tree is there, but no client any more.
    ~handler() {
        server_.announce_end();
        server_.break_off();
        owner_.reset();
    }
    handler(const handler&) = delete;
    handler& operator=(const handler&) = delete;

    // Ends as a killed process does: no subscriber is told. To be destroyed then.
    void break_off() { server_.break_off(); }

  private:
    static constexpr unsigned poll_period_ms = 1000;

    dh_server server_;
    dh::api::value_group group_;
    std::shared_ptr<void> owner_;
};

}  // namespace simulator
