#include "module_mirror.hpp"

std::shared_ptr<device_handler_client> create_supervised_client(
    dh::util::proxy& proxy, const std::string& unix_path, const std::string& name,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    auto client = device_handler_client::create(unix_path, name, subscriber);
    proxy.clients.push_back(client);
    return client;
}

bool has_config_status(dh::util::proxy& proxy, const std::string& name) {
    const auto node = proxy.get_path_node<dh::api::status_value<bool>>(name + "/data/configStatus");
    return node && (*node)->latest();
}
