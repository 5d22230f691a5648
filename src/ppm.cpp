#include "ppm.hpp"

#include "module_mirror.hpp"
#include "msg_log.hpp"

#include <fmt/format.h>

#include <future>
#include <utility>

namespace {

struct loss_paths {
    const char* node;       // below the slot
    const char* inventory;  // of the module
};

constexpr std::array<loss_paths, 4> losses{{
    {"pm/wdm/addLoss", "inventory/wdmAddLoss"},
    {"pm/wdm/dropLoss", "inventory/wdmDropLoss"},
    {"pm/osc/addLoss", "inventory/oscAddLoss"},
    {"pm/osc/dropLoss", "inventory/oscDropLoss"},
}};

}  // namespace

std::shared_ptr<ppm_slot> ppm_slot::create(
    unsigned index, const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber) {
    const auto made = std::make_shared<ppm_slot>(
        index, proxy,
        create_supervised_client(*proxy, fmt::format("/tmp/device_handlers/ppm/{}", index),
                                 fmt::format("ppm/{}", index + 1), subscriber));
    made->create_paths();
    return made;
}

ppm_slot::ppm_slot(unsigned index, std::shared_ptr<dh::util::proxy> proxy,
                   std::shared_ptr<device_handler_client> client)
    : ppm_id_(index + 1),
      root_(fmt::format("ppm/{}", ppm_id_)),
      present_path_(root_ + "/present"),
      log_channel_(fmt::format("{}/{}", "tm_velt_ppm", ppm_id_)),
      proxy_(std::move(proxy)),
      client_(std::move(client)) {}

void ppm_slot::create_paths() {
    for (std::size_t i = 0; i < loss_count; ++i)
        losses_[i] = loss_node::create(proxy_->db(), root_ + "/" + losses[i].node);
    proxy_->exclude(present_path_);
    proxy_->on_update(present_path_, [weak = weak_from_this()] {
        if (const auto slot = weak.lock())
            slot->on_insert();
    });
}

std::string ppm_slot::get_ppm_position() const {
    return ppm_id_ % 2 == 1 ? "upper" : "lower";
}

void ppm_slot::on_disconnect() {
    clear_flag(*proxy_, present_path_);
}

void ppm_slot::unsubscribe() {
    proxy_->unsubscribe_path(client_, root_);
}

void ppm_slot::on_insert() {
    const auto present = find_flag(*proxy_, present_path_);
    if (!present)
        return;
    if (!present->latest()) {
        clear_pm_loss_values();
    } else {
        if (!was_present_)
            MSG_LOG(log_channel_, msg_log::detail) << "msg: PPM was inserted.";
        on_ppm_loss_change();
    }
    was_present_ = present->latest();
}

// An item that the inventory lacks counts as 0.
void ppm_slot::on_ppm_loss_change() {
    device_handler_read_request request;
    std::array<std::future<unsigned int>, loss_count> values;
    for (std::size_t i = 0; i < loss_count; ++i)
        values[i] = request.add<unsigned int>(std::string_view(losses[i].inventory), 0U);
    client_->send_request(std::move(request));
    for (std::size_t i = 0; i < loss_count; ++i) {
        const unsigned int value = values[i].get();
        if (losses_[i])
            losses_[i]->push(value);
    }
}

void ppm_slot::clear_pm_loss_values() {
    for (std::size_t i = 0; i < loss_count; ++i) {
        if (losses_[i])
            losses_[i]->push(0);
        else
            MSG_LOG(log_channel_, msg_log::failure)
                << fmt::format("uninitialized PM value on index {}", i);
    }
}
