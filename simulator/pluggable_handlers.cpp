#include "pluggable_handlers.hpp"

#include "command.hpp"
#include "filtered_value.hpp"
#include "status_value.hpp"
#include "volatile_value.hpp"

#include <fmt/format.h>

#include <utility>

namespace simulator {
namespace {

using dh::api::hysteresis_filtered_value;
using dh::api::pushed_volatile_value_impl;
using dh::api::status_value;
using dh::api::volatile_value;

using flag_value = status_value<bool>;
using count_value = status_value<unsigned int>;
using text_value = status_value<std::string>;
using figure_value = hysteresis_filtered_value<pushed_volatile_value_impl<float>>;

constexpr float no_power = -99.0F;  // dBm, of a transceiver that is not there
constexpr unsigned missing_severity = 3;

// The module in the handler's tree, for as long as this object lives. Who hears
// that a module is present finds its inventory in place.
class ppm_nodes final : public display<passive_module> {
  public:
    ppm_nodes(dh_db& db, std::shared_ptr<ppm_bay> bay)
        : bay_(std::move(bay)), present_(flag_value::create(db, "present", false, 0)) {
        for (std::size_t i = 0; i < ppm_loss_count; ++i)
            losses_[i] =
                count_value::create(db, std::string("inventory/") + ppm_loss_names[i], 0, 0);
        bay_->show_on(*this);
    }
    ~ppm_nodes() override { bay_->hide(); }
    ppm_nodes(const ppm_nodes&) = delete;
    ppm_nodes& operator=(const ppm_nodes&) = delete;

    void show(const passive_module& now) override {
        for (std::size_t i = 0; i < ppm_loss_count; ++i)
            losses_[i]->set(now.present ? now.losses[i] : 0);
        present_->set(now.present);
    }

  private:
    const std::shared_ptr<ppm_bay> bay_;
    const std::shared_ptr<flag_value> present_;
    std::array<std::shared_ptr<count_value>, ppm_loss_count> losses_;
};

class sfp_nodes final : public display<transceiver> {
  public:
    sfp_nodes(dh_db& db, std::shared_ptr<sfp_bay> bay)
        : bay_(std::move(bay)),
          present_(flag_value::create(db, "present", false, 0)),
          missing_(count_value::create(db, "alarms/transceiverMissing/severity", 0, 0)),
          rx_power_(figure_value::create(db, "data/rxPower")),
          tx_power_(figure_value::create(db, "data/txPower")),
          otdr_support_(flag_value::create(db, "data/otdrSupport", false, 0)),
          product_name_(text_value::create(db, "inventory/productName", "", 0)) {
        bay_->show_on(*this);
    }
    ~sfp_nodes() override { bay_->hide(); }
    sfp_nodes(const sfp_nodes&) = delete;
    sfp_nodes& operator=(const sfp_nodes&) = delete;

    void show(const transceiver& now) override {
        const bool has_otdr = now.present && now.otdr_support;
        product_name_->set(!now.present ? "" : has_otdr ? "VLT-SFP-OTDR" : "VLT-SFP");
        otdr_support_->set(has_otdr);
        rx_power_->push(now.present ? now.rx_power : no_power);
        tx_power_->push(now.present ? now.tx_power : no_power);
        missing_->set(now.present ? 0 : missing_severity);
        present_->set(now.present);
    }

  private:
    const std::shared_ptr<sfp_bay> bay_;
    const std::shared_ptr<flag_value> present_;
    const std::shared_ptr<count_value> missing_;
    const std::shared_ptr<figure_value> rx_power_;
    const std::shared_ptr<figure_value> tx_power_;
    const std::shared_ptr<flag_value> otdr_support_;
    const std::shared_ptr<text_value> product_name_;
};

void publish_otdr(dh_db& db, const std::shared_ptr<otdr_unit>& otdr) {
    dh::api::command<&otdr_unit::measure>::create(db, "command/measureOtdr", otdr);
    volatile_value<&otdr_unit::detected>::create(db, "data/reflectionsDetected", otdr);
    for (unsigned number = 1; number <= max_reported_reflections; ++number)
        volatile_value<&otdr_unit::distance>::create(
            db, fmt::format("data/reflection/{}/distance", number), otdr, number);
}

}  // namespace

handler_plan ppm_handler(const std::string& name, std::shared_ptr<ppm_bay> bay) {
    return {name, name, [bay = std::move(bay)](dh_db& db, dh::api::value_group&) {
                return std::make_shared<ppm_nodes>(db, bay);
            }};
}

handler_plan sfp_handler(const std::string& name, std::shared_ptr<sfp_bay> bay,
                         std::shared_ptr<otdr_unit> otdr) {
    return {name, name,
            [bay = std::move(bay), otdr = std::move(otdr)](dh_db& db, dh::api::value_group&) {
                publish_otdr(db, otdr);
                return std::make_shared<sfp_nodes>(db, bay);
            }};
}

}  // namespace simulator
