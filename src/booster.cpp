#include "booster.hpp"

#include "module_mirror.hpp"

std::shared_ptr<booster> booster::create(
    const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    return std::make_shared<booster>(
        proxy,
        create_supervised_client(*proxy, "/tmp/device_handlers/booster", "booster", subscriber));
}

bool booster::is_ready() const {
    return has_config_status(*proxy_, "booster");
}

void booster::unsubscribe() {
    proxy_->unsubscribe_path(client_, "booster");
}
