#include "wss_edge.hpp"

#include "module_mirror.hpp"

std::shared_ptr<wss_edge> wss_edge::create(
    const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    auto made = std::make_shared<wss_edge>(
        proxy,
        create_supervised_client(*proxy, "/tmp/device_handlers/wss_edge", "wss_edge", subscriber));
    made->create_paths();
    return made;
}

void wss_edge::create_paths() {
    const std::string offset_path = "wss_edge/config/ocm/2/monitorPortOffset";
    proxy_->exclude(offset_path);
    const auto offset = dh::api::config_param<&wss_edge::set_ocm_monitorPortOffset>::create(
        proxy_->db(), offset_path, weak_from_this());
    proxy_->value_group().add_value(offset, 0);
}

bool wss_edge::is_ready() const {
    return has_config_status(*proxy_, "wss_edge");
}

void wss_edge::unsubscribe() {
    proxy_->unsubscribe_path(client_, "wss_edge");
}
