#include "connection_listener.hpp"

#include "msg_log.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <future>
#include <utility>

namespace {

constexpr char log_channel[] = "connection";

constexpr unsigned severity_connected = 0;
constexpr unsigned severity_lost = 3;

// All at the same time. Returns when the last one has ended; what they throw is
// theirs.
void run_in_parallel(const std::vector<std::function<void()>>& callbacks) {
    std::vector<std::future<void>> running;
    running.reserve(callbacks.size());
    for (const auto& callback : callbacks)
        running.push_back(std::async(std::launch::async, callback));
}

}  // namespace

traffic_manager_velt::connection_listener::connection_listener(
    std::shared_ptr<traffic_manager_velt> manager)
    : manager_(std::move(manager)) {}

void traffic_manager_velt::connection_listener::on_established(const std::string& client_name,
                                                               callback function) {
    established_[client_name].push_back(std::move(function));
}

void traffic_manager_velt::connection_listener::on_lost(const std::string& client_name,
                                                        callback function) {
    lost_[client_name].push_back(std::move(function));
}

void traffic_manager_velt::connection_listener::connection_established_event(
    std::string client_name) {
    MSG_LOG(log_channel, msg_log::detail) << fmt::format("Client '{}' connected", client_name);
    handle_event(client_name, severity_connected, established_);
}

void traffic_manager_velt::connection_listener::connection_lost_event(std::string client_name) {
    MSG_LOG(log_channel, msg_log::detail) << fmt::format("Client '{}' disconnected", client_name);
    handle_event(client_name, severity_lost, lost_);
}

// The start-up holds the main mutex, so an event that comes before its client's
// callbacks are registered waits for them.
void traffic_manager_velt::connection_listener::handle_event(const std::string& client_name,
                                                             unsigned severity,
                                                             const callbacks& registered) {
    const std::lock_guard lock(manager_->mutex_);
    if (!is_known(client_name)) {
        MSG_LOG(log_channel, msg_log::failure) << fmt::format("Client '{}' not found", client_name);
        return;
    }
    set_alarm(client_name, severity);
    const auto found = registered.find(client_name);
    if (found != registered.end())
        run_in_parallel(found->second);
}

bool traffic_manager_velt::connection_listener::is_known(const std::string& client_name) const {
    const auto& clients = manager_->proxy_->clients;
    return std::any_of(clients.begin(), clients.end(),
                       [&](const auto& client) { return client->name() == client_name; });
}

void traffic_manager_velt::connection_listener::set_alarm(const std::string& client_name,
                                                          unsigned severity) {
    const auto found = alarms_.find(client_name);
    if (found != alarms_.end())
        found->second->set(severity);
    else
        alarms_.emplace(
            client_name,
            alarm::create(manager_->db_,
                          fmt::format("alarms/{}/communicationFailure/severity", client_name),
                          severity, 1));
}
