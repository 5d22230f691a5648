#include "osc.hpp"

#include "module_mirror.hpp"

#include <fmt/format.h>

std::shared_ptr<osc> osc::create(
    unsigned index, const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    return std::make_shared<osc>(
        index, proxy,
        create_supervised_client(*proxy, fmt::format("/tmp/device_handlers/osc{}", index + 1),
                                 fmt::format("osc/{}", index + 1), subscriber));
}

bool osc::is_ready() const {
    return has_config_status(*proxy_, fmt::format("osc/{}", port_id_ + 1));
}

void osc::unsubscribe() {
    proxy_->unsubscribe_path(client_, fmt::format("osc/{}", port_id_));
}
