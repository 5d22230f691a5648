#include "led.hpp"

#include "board.hpp"
#include "host.hpp"
#include "msg_log.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <initializer_list>

namespace {

using namespace std::chrono_literals;

constexpr char log_channel[] = "tm_velt_led_manager";

constexpr auto pass_pause = 1s;
constexpr auto failure_pause = 5s;

constexpr unsigned channel_count = 48;
constexpr float no_light = -38.0F;  // dBm, total power of a dark input
constexpr int refused_colour = -14;

constexpr char enable_path[] = "data/enable";
constexpr char los_pin_path[] = "data/rx/losPin";
constexpr char total_power_path[] = "data/ocm/2/totalPower";

led_value_t green_if(bool lit) {
    return lit ? led_value_t::green : led_value_t::off;
}

// A step that fails is logged under the handler's name and ends; the pass goes on.
template <class Step>
void try_step(const char* handler, const Step& step) {
    try {
        step();
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Caught " << handler << " dh client exception: " << error.message;
    } catch (const dh_error& error) {
        MSG_LOG(log_channel, msg_log::failure) << "msg: Caught led velt dh error: " << error.what();
    }
}

void set_led(device_handler_client& handler, std::string_view path, led_value_t value,
             std::initializer_list<led_value_t> accepted, const char* refusal) {
    if (std::find(accepted.begin(), accepted.end(), value) == accepted.end())
        throw dh_client_exception{refused_colour, refusal};
    handler.set<void>(path, led_value_to_string(value));
}

}  // namespace

// Which channels light an LED: those that are detected and led to the port.
struct led::channel_search {
    const char* monitor;  // path to a channel's number, in the monitor and in the switch
    const char* wss;
    const char* port;
    const char* handler;  // as a failure names it
};

std::string led_value_to_string(led_value_t value) {
    switch (value) {
        case led_value_t::off:
            return "off";
        case led_value_t::green:
            return "green";
        case led_value_t::red:
            return "red";
        case led_value_t::yellow:
            return "yellow";
    }
    return "unknown";
}

std::shared_ptr<led> led::create(const std::shared_ptr<dh::util::proxy>&) {
    return std::make_shared<led>();
}

led::led()
    : wss_edge_(device_handler_client::create("/tmp/device_handlers/wss_edge", "unnamed", {})),
      booster_(device_handler_client::create("/tmp/device_handlers/booster", "unnamed", {})),
      led_(device_handler_client::create("/tmp/device_handlers/led_velt", "unnamed", {})),
      gate_(mutex_),
      thread_([this] { led_thread_function(); }) {}

led::~led() {
    running_ = false;
    if (gate_.owns_lock())
        gate_.unlock();
    thread_.join();
}

void led::start() {
    gate_.unlock();
}

void led::set_status_led(led_value_t value) {
    set_led(*led_, "config/statusLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::red},
            "Status Led must be off or green or red");
}

void led::set_power_led(led_value_t value) {
    set_led(*led_, "config/powerLed/status", value, {led_value_t::green, led_value_t::red},
            "Power Led must be green or red");
}

void led::set_ocm_tx_led(led_value_t value) {
    set_led(*led_, "config/ocmLed/txLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::yellow},
            "OCM Tx Led must be off or green or yellow");
}

void led::set_ocm_rx_led(led_value_t value) {
    set_led(*led_, "config/ocmLed/rxLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::yellow},
            "OCM Rx Led must be off or green or yellow");
}

void led::set_edfa_tx_led(led_value_t value) {
    set_led(*led_, "config/edfaLed/txLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::yellow},
            "EDFA Tx Led must be off or green or yellow");
}

void led::set_edfa_rx_led(led_value_t value) {
    set_led(*led_, "config/edfaLed/rxLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::yellow},
            "EDFA Rx Led must be off or green or yellow");
}

void led::set_express_tx_led(led_value_t value) {
    set_led(*led_, "config/expressLed/txLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::yellow},
            "Express Tx Led must be off or green or yellow");
}

void led::set_express_rx_led(led_value_t value) {
    set_led(*led_, "config/expressLed/rxLed/status", value,
            {led_value_t::off, led_value_t::green, led_value_t::yellow},
            "Express Rx Led must be off or green or yellow");
}

void led::led_thread_function() {
    set_power_led(led_value_t::green);
    set_status_led(led_value_t::green);
    while (running_) {
        host::time().sleep(pass_pause);
        try {
            manage_leds();
        } catch (const dh_client_exception& error) {
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: Caught dh client exception: " << error.message;
            host::time().sleep(failure_pause);
        } catch (...) {
            MSG_LOG(log_channel, msg_log::failure) << "msg: Caught exception: unknown reason.";
            host::time().sleep(failure_pause);
        }
    }
}

void led::manage_leds() {
    const std::lock_guard lock(mutex_);
    const device_tree_lib& board = device_tree_lib::instance();
    if (board.is_velt_k47()) {
        manage_k47_edfa_leds();
        manage_k47_ocm_led();
    } else if (board.is_velt_t47()) {
        manage_t47_edfa_leds();
        manage_t47_ocm_led();
        manage_t47_express_led();
    } else if (board.is_velt_mx47()) {
        manage_mx47_edfa_leds();
        manage_mx47_ocm_led();
        manage_mx47_eq_led();
    } else {
        MSG_LOG("manage_leds", msg_log::detail) << "msg: VELT LED manager - Unknown platform.";
    }
}

void led::manage_k47_edfa_leds() {
    try_step("booster", [this] {
        set_edfa_tx_led(green_if(booster_->get<bool>(enable_path)));
        set_edfa_rx_led(green_if(!booster_->get<bool>(los_pin_path)));
    });
}

// The amplifier card has no monitor: its light goes out as the booster's does.
void led::manage_k47_ocm_led() {
    try_step("booster", [this] { set_ocm_tx_led(green_if(booster_->get<bool>(enable_path))); });
}

void led::manage_t47_edfa_leds() {
    show_booster_output();
    const bool found = finds_channel({"data/ocm/1/channel/", "data/wss/channel/", "edfa", "wss"});
    try_step("wss", [&] { set_edfa_rx_led(green_if(found)); });
}

void led::manage_t47_ocm_led() {
    show_total_power();
}

void led::manage_t47_express_led() {
    const bool found =
        finds_channel({"data/ocm/1/channel/", "data/wss/channel/", "express", "WSS"});
    try_step("WSS", [&] { set_express_rx_led(green_if(found)); });
}

void led::manage_mx47_edfa_leds() {
    show_booster_output();
    const bool found = finds_channel({"data/ocm/1/channel/", "data/wss/1/channel/", "on", "wss"});
    try_step("wss", [&] { set_edfa_rx_led(green_if(found)); });
}

void led::manage_mx47_ocm_led() {
    show_total_power();
}

void led::manage_mx47_eq_led() {
    const bool found = finds_channel({"data/ocm/2/channel/", "data/wss/2/channel/", "on", "WSS"});
    try_step("WSS", [&] {
        set_express_rx_led(green_if(found));
        set_express_tx_led(green_if(found));
    });
}

void led::show_booster_output() {
    try_step("booster", [this] { set_edfa_tx_led(green_if(booster_->get<bool>(enable_path))); });
}

// At the mark itself the LED stays as it is.
void led::show_total_power() {
    try_step("WSS", [this] {
        const auto power = wss_edge_->get<float>(total_power_path);
        if (power > no_light)
            set_ocm_rx_led(led_value_t::green);
        else if (power < no_light)
            set_ocm_rx_led(led_value_t::off);
    });
}

// A channel that cannot be read is none.
bool led::finds_channel(const channel_search& wanted) {
    bool found = false;
    for (unsigned channel = 1; channel <= channel_count && !found; ++channel)
        try_step(wanted.handler, [&] {
            const bool detected =
                wss_edge_->get<bool>(fmt::format("{}{}/detected", wanted.monitor, channel));
            const auto port =
                wss_edge_->get<std::string>(fmt::format("{}{}/port", wanted.wss, channel));
            found = detected && port == wanted.port;
        });
    return found;
}
