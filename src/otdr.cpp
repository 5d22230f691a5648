#include "otdr.hpp"

#include "ghost_detection.hpp"
#include "host.hpp"
#include "module_mirror.hpp"
#include "msg_log.hpp"
#include "reference_point_file.hpp"
#include "saturated_unsigned.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

constexpr char log_channel[] = "tm_velt_otdr_manager";
constexpr char event_channel[] = "tm_velt_otdr";

}  // namespace

std::shared_ptr<otdr> otdr::create(
    unsigned port, const std::shared_ptr<dh::util::proxy>& proxy,
    const std::shared_ptr<device_handler_connection_subscriber>& subscriber,
    const std::shared_ptr<device_handler_client>& osc,
    const std::shared_ptr<device_handler_client>& sfp) {
    auto made =
        std::make_shared<otdr>(port, proxy, osc, sfp,
                               create_supervised_client(*proxy, "/tmp/device_handlers/system_info",
                                                        "system info", subscriber));
    made->create_paths();
    return made;
}

otdr::otdr(unsigned port, std::shared_ptr<dh::util::proxy> proxy,
           std::shared_ptr<device_handler_client> osc, std::shared_ptr<device_handler_client> sfp,
           std::shared_ptr<device_handler_client> system_info)
    : port_(port),
      present_path_(fmt::format("otdr/interface/{}/present", port)),
      proxy_(std::move(proxy)),
      osc_(std::move(osc)),
      sfp_(std::move(sfp)),
      system_info_(std::move(system_info)) {}

// --- the tree ---

void otdr::create_paths() {
    present_ = proxy_->add_status_path<bool>("otdr/present", false);
    proxy_->exclude(present_path_);
    proxy_->on_update(present_path_, [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->on_sfp_present_state_change();
    });
}

void otdr::add_attribute(const std::shared_ptr<dh_db_leaf_node>& node) {
    attributes_.add_value(node, 0);
}

void otdr::add_attributes() {
    using namespace dh::api;
    dh_db& db = proxy_->db();
    const auto self = weak_from_this();
    add_attribute(command<&otdr::set_measure>::create(db, "otdr/command/measure", self));
    add_attribute(command<&otdr::set_save_refpoint>::create(db, "otdr/command/saveRefpoint", self));
    add_attribute(
        command<&otdr::set_delete_refpoint>::create(db, "otdr/command/deleteRefpoint", self));
    add_attribute(
        command<&otdr::set_delete_measurement>::create(db, "otdr/command/deleteMeasurement", self));
    add_attribute(volatile_value<&otdr::get_refpoint>::create(db, "otdr/data/refpoint", self));
    add_attribute(volatile_value<&otdr::get_pointer>::create(db, "otdr/data/pointer", self));
    add_attribute(
        volatile_value<&otdr::get_osc_fiberlength>::create(db, "otdr/data/oscFiberlength", self));
    for (unsigned slot = 0; slot < slots; ++slot)
        add_attribute(volatile_value<&otdr::get_measurement>::create(
            db, fmt::format("otdr/data/measurement/{}", slot + 1), self, static_cast<int>(slot)));
    config_status_ = status_value<bool>::create(db, "otdr/data/configStatus", true, 1);
    add_attribute(config_status_);
}

void otdr::remove_attributes() {
    config_status_.reset();
    attributes_.clear_values();
}

// --- the transceiver ---

void otdr::enter_available() {
    present_->set(true);
    // After a reconnection those of before are there still.
    if (!config_status_)
        add_attributes();
}

void otdr::enter_absent() {
    if (config_status_)
        remove_attributes();
    present_->set(false);
}

void otdr::on_connect_sfp() {
    if (!is_subscribed_) {
        await_settled_handler();
        // Before its first event, which has to count.
        is_subscribed_ = true;
        mirror_presence(*proxy_, sfp_, present_path_);
    }
    try {
        start();
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Caught sfp plus dh client exception: " << error.message;
    }
}

// A handler that restarts has not lost its transceiver: what is mirrored becomes
// false, and nothing follows from it.
void otdr::on_disconnect_sfp() {
    const std::lock_guard lock(transceiver_mutex_);
    is_subscribed_ = false;
    clear_flag(*proxy_, present_path_);
}

void otdr::start() {
    for (auto& slot : measurements_)
        slot.set({});
    read_refpoint_save();
    osc_fiber_length_ = refpoint_.get().osc_fiber_length;

    const std::lock_guard lock(transceiver_mutex_);
    const bool is_supported = sfp_->get<bool>("data/otdrSupport");
    const bool is_present = sfp_->get<bool>("present");
    if (is_supported && is_present)
        enter_available();
    else
        enter_absent();
}

void otdr::on_sfp_present_state_change() {
    const auto present = find_flag(*proxy_, present_path_);
    if (!present)
        return;
    const std::lock_guard lock(transceiver_mutex_);
    // An event that the loss of the handler has overtaken; its first one after
    // the return tells what is.
    if (!is_subscribed_)
        return;
    const bool is_present = present->latest();
    if (is_present && !was_present_)
        on_sfp_insert();
    else if (!is_present && was_present_)
        on_sfp_remove();
    was_present_ = is_present;
}

void otdr::on_sfp_insert() {
    MSG_LOG(event_channel, msg_log::progress) << "msg: sfp/" << port_ << " was inserted.";
    if (sfp_->get<bool>("data/otdrSupport"))
        enter_available();
}

void otdr::on_sfp_remove() {
    MSG_LOG(event_channel, msg_log::progress) << "msg: sfp/" << port_ << " was removed.";
    enter_absent();
}

// --- measurements ---

bool otdr::set_measure(bool) {
    const std::lock_guard lock(measure_mutex_);
    otdr_measurement measured = measure();
    const unsigned slot = next_slot_;
    measurements_[slot].set(measured);
    detect_ghost(slot);
    measured = measurements_[slot].get();
    measured.valid = true;
    measurements_[slot].set(measured);
    next_slot_ = slot == slots - 1 ? 0 : slot + 1;
    return true;
}

otdr_measurement otdr::measure() {
    try {
        otdr_measurement measured;
        sfp_->set<bool>("command/measureOtdr", true);
        read_reflections(measured);
        return measured;
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Caught sfp plus dh client exception: " << error.message;
    } catch (const dh_error& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Caught OTDR velt dh error: " << error.what();
    }
    throw dh_error(dh_error_code::invalid_argument,
                   "No OTDR measurement data available, please try again.");
}

void otdr::read_reflections(otdr_measurement& measured) {
    constexpr int max_reflections = otdr_measurement::max_reflections;
    const int reported = sfp_->get<int>("data/reflectionsDetected");
    if (reported < 0)
        throw dh_error(dh_error_code::bad_value,
                       fmt::format("{} reflections were detected", reported));
    const int count = std::min(reported, max_reflections);
    if (count < reported)
        MSG_LOG(log_channel, msg_log::warning)
            << "msg: " << reported << " reflections were detected, the first " << max_reflections
            << " are kept.";
    measured.num_of_reflections = static_cast<std::uint8_t>(count);
    measured.timestamp =
        std::chrono::duration_cast<std::chrono::seconds>(host::time().wall()).count();
    for (int number = 1; number <= count; ++number)
        measured.reflections[static_cast<std::size_t>(number - 1)].distance =
            static_cast<std::uint32_t>(
                sfp_->get<int>(fmt::format("data/reflection/{}/distance", number)));
}

void otdr::detect_ghost(unsigned slot) {
    otdr_measurement measured = measurements_[slot].get();
    read_link(measured);
    mark_ghosts(measured.reported(), osc_fiber_length_);
    measurements_[slot].set(measured);
}

// Where the link cannot be asked the length of before stands.
void otdr::read_link(otdr_measurement& measured) {
    try {
        if (osc_->get<std::string>("data/linkStatus") != "up") {
            osc_fiber_length_ = 0;
            return;
        }
        const float length = osc_->get<float>("data/fiberLength") * 1000.0F;
        osc_fiber_length_ = saturated_unsigned(length);
        measured.osc_fiber_length = osc_fiber_length_;
        measured.osc_link_up = true;
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Caught OSC dh client exception: " << error.message;
    } catch (const dh_error& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Caught OTDR velt dh error: " << error.what();
    }
}

bool otdr::set_delete_measurement(int number) {
    if (number < 1 || number > static_cast<int>(slots)) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Invalid measurement data";
        throw dh_error(dh_error_code::invalid_argument, "Invalid measurement number.");
    }
    measurements_[static_cast<std::size_t>(number - 1)].set({});
    return true;
}

json::document otdr::get_measurement(int slot) {
    return as_json(measurements_.at(static_cast<std::size_t>(slot)).get());
}

unsigned otdr::get_pointer() {
    return next_slot_;
}

float otdr::get_osc_fiberlength() {
    return static_cast<float>(static_cast<double>(osc_fiber_length_) / 1000.0);
}

// --- the reference point ---

bool otdr::set_save_refpoint(int number) {
    if (number < 1 || number > static_cast<int>(slots)) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Invalid measurement number: " << number;
        throw dh_error(dh_error_code::invalid_argument, "Invalid measurement number.");
    }
    const otdr_measurement chosen = measurements_[static_cast<std::size_t>(number - 1)].get();
    if (!chosen.valid) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Invalid measurement data.";
        throw dh_error(dh_error_code::invalid_argument, "No data available for OTDR serie.");
    }
    return replace_refpoint(chosen);
}

bool otdr::set_delete_refpoint(bool) {
    replace_refpoint({});
    return true;
}

json::document otdr::get_refpoint() {
    return as_json(refpoint_.get());
}

bool otdr::replace_refpoint(const otdr_measurement& point) {
    const std::lock_guard lock(refpoint_file_mutex_);
    refpoint_.set(point);
    return reference_point_file::write(point);
}

void otdr::read_refpoint_save() {
    const std::lock_guard lock(refpoint_file_mutex_);
    otdr_measurement point;
    reference_point_file::read(point);
    refpoint_.set(point);
}
