// What the card does when a device handler comes or goes.
#pragma once

#include "traffic_manager_velt.hpp"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Publishes for each client whether its handler is there, and runs what the
// start-up has registered for it.
//
// Events come on the client library's connection thread, one after the other.
// An event holds the main mutex until all its callbacks have ended; they run
// at the same time, each on a thread of its own, and may do blocking calls.
class traffic_manager_velt::connection_listener : public device_handler_connection_subscriber {
  public:
    using callback = std::function<void()>;

    explicit connection_listener(std::shared_ptr<traffic_manager_velt> manager);

    // Called by the start-up, with the main mutex held.
    void on_established(const std::string& client_name, callback function);
    void on_lost(const std::string& client_name, callback function);

    void connection_established_event(std::string client_name) override;
    void connection_lost_event(std::string client_name) override;

  private:
    using alarm = dh::api::status_value<unsigned, std::equal_to<unsigned>>;
    using callbacks = std::map<std::string, std::vector<callback>>;

    void handle_event(const std::string& client_name, unsigned severity,
                      const callbacks& registered);
    bool is_known(const std::string& client_name) const;
    void set_alarm(const std::string& client_name, unsigned severity);

    // All guarded by the main mutex.
    std::map<std::string, std::shared_ptr<alarm>> alarms_;
    callbacks established_;
    callbacks lost_;
    // Never given up: both live until the process ends.
    const std::shared_ptr<traffic_manager_velt> manager_;
};
