#include "module_mirror.hpp"

#include "host.hpp"

#include <chrono>

std::shared_ptr<device_handler_client> create_supervised_client(
    dh::util::proxy& proxy, const std::string& unix_path, const std::string& name,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    auto client = device_handler_client::create(unix_path, name, subscriber);
    proxy.clients.push_back(client);
    return client;
}

std::shared_ptr<dh::api::status_value<bool>> find_flag(dh::util::proxy& proxy,
                                                       const std::string& path) {
    return proxy.get_path_node<dh::api::status_value<bool>>(path).value_or(nullptr);
}

void clear_flag(dh::util::proxy& proxy, const std::string& path) {
    if (const auto flag = find_flag(proxy, path))
        flag->set(false);
}

void await_settled_handler() {
    host::time().sleep(std::chrono::seconds(3));
}

void mirror_presence(dh::util::proxy& proxy,
                     const std::shared_ptr<device_handler_client_api>& client,
                     const std::string& local_path) {
    proxy.subscribe<dh::api::status_value<bool>, bool>(client, "present", local_path);
}

bool has_config_status(dh::util::proxy& proxy, const std::string& name) {
    const auto status = find_flag(proxy, name + "/data/configStatus");
    return status && status->latest();
}
