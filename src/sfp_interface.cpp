#include "sfp_interface.hpp"

#include "module_mirror.hpp"
#include "msg_log.hpp"

#include <fmt/format.h>

#include <utility>

std::shared_ptr<sfp_interface> sfp_interface::create(
    unsigned index, const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    const auto made = std::make_shared<sfp_interface>(
        index, proxy,
        create_supervised_client(*proxy, fmt::format("/tmp/device_handlers/sfp/{}", index),
                                 fmt::format("interface/{}", index + 1), subscriber));
    made->create_paths();
    return made;
}

sfp_interface::sfp_interface(unsigned index, std::shared_ptr<dh::util::proxy> proxy,
                             std::shared_ptr<device_handler_client> client)
    : port_id_(index + 1),
      root_(fmt::format("interface/{}", port_id_)),
      present_path_(root_ + "/present"),
      log_channel_(fmt::format("tm_velt_sfp/{}", port_id_)),
      proxy_(std::move(proxy)),
      client_(std::move(client)) {}

void sfp_interface::create_paths() {
    proxy_->exclude(present_path_);
    proxy_->exclude(root_ + "/alarms/transceiverMissing/severity");
    proxy_->on_update(present_path_, [weak = weak_from_this()] {
        if (const auto port = weak.lock())
            port->on_insert();
    });
}

std::string sfp_interface::get_port_type() const {
    return port_id_ % 2 == 1 ? "lower" : "upper";
}

void sfp_interface::on_connect() {
    if (resubscribe_) {
        await_settled_handler();
        mirror_presence(*proxy_, client_, present_path_);
    }
    resubscribe_ = false;
}

void sfp_interface::on_disconnect() {
    clear_flag(*proxy_, present_path_);
    resubscribe_ = true;
}

void sfp_interface::unsubscribe() {
    proxy_->unsubscribe_path(client_, root_);
}

void sfp_interface::on_insert() {
    const auto present = find_flag(*proxy_, present_path_);
    if (!present)
        return;
    if (present->latest() && !was_present_)
        MSG_LOG(log_channel_, msg_log::detail) << "msg: SFP was inserted.";
    was_present_ = present->latest();
}
