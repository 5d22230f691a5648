#include "control_loop.hpp"

#include "board.hpp"
#include "host.hpp"
#include "module_mirror.hpp"
#include "msg_log.hpp"
#include "rest_client.hpp"

#include <chrono>
#include <string_view>
#include <utility>

using namespace std::chrono_literals;

namespace {

constexpr char log_channel[] = "tm_velt_cloop";

// In /tmp, so it goes at every reboot and survives every restart of the daemon.
constexpr std::string_view warmstart_marker = "/tmp/control_warmstart.lock";

constexpr auto configuration_pause = 2s;
constexpr unsigned wss_edge_attempts = 30;
constexpr auto wss_edge_pause = 10s;
constexpr auto loop_pause = 2s;
constexpr auto failed_channel_pause = 2s;

// In force whatever the neighbour tells: no status is ever "connected".
constexpr float combined_booster_power_limit = 20.0F;  // dBm

// Whether every channel has to be driven to its idle attenuation first: after
// a cold start of the card, unless the loop ran before since then.
bool is_coldstart() {
    const auto system_start =
        device_handler_client::create("/tmp/device_handlers/system_start", "unnamed", {});
    const bool system_coldstart = system_start->get<bool>("data/systemColdstart");
    if (host::exists(warmstart_marker)) {
        MSG_LOG(log_channel, msg_log::progress)
            << "msg: Found a WARMSTART File, this means system has warmstarted.";
        return false;
    }
    return system_coldstart;
}

void create_warmstart_marker() {
    const int result = host::run_shell("touch " + host::shell_word(host::path(warmstart_marker)));
    if (result == 0)
        MSG_LOG(log_channel, msg_log::progress)
            << "msg: Created a WARMSTART File, next time line control loop starts, it will be "
               "warmstarted.";
    else
        MSG_LOG(log_channel, msg_log::failure)
            << "msg: Failed to create a WARMSTART temp file, ret = " << result;
}

}  // namespace

bool control_loop_main::has_two_loops() {
    return device_tree_lib::instance().is_velt_mx47() ||
           host::exists("/var/persistent/etc/enable_veltmx47");
}

std::shared_ptr<control_loop_main> control_loop_main::create(
    std::shared_ptr<dh::util::proxy> proxy,
    std::shared_ptr<device_handler_connection_subscriber> subscriber,
    std::shared_ptr<device_handler_client> wss_edge_client,
    std::shared_ptr<device_handler_client> booster_client) {
    const auto system_info_client = create_supervised_client(
        *proxy, "/tmp/device_handlers/system_info", "system info", subscriber);
    auto loop = std::make_shared<control_loop_main>(proxy, wss_edge_client,
                                                    std::move(booster_client), system_info_client);
    const unsigned loops = has_two_loops() ? 2 : 1;
    for (unsigned port = 0; port < loops; ++port) {
        loop->regulators_[port] = regulation_handler::create(proxy, wss_edge_client, port);
        loop->regulators_[port]->start();
    }
    loop->start_poll_thread();
    return loop;
}

control_loop_main::control_loop_main(std::shared_ptr<dh::util::proxy> proxy,
                                     std::shared_ptr<device_handler_client> wss_edge_client,
                                     std::shared_ptr<device_handler_client> booster_client,
                                     std::shared_ptr<device_handler_client> system_info_client)
    : proxy_(std::move(proxy)),
      wss_edge_client_(std::move(wss_edge_client)),
      booster_client_(std::move(booster_client)),
      system_info_client_(std::move(system_info_client)) {}

control_loop_main::~control_loop_main() {
    MSG_LOG(log_channel, msg_log::progress) << "msg: Control loop main destroyed.";
    stop_requested_ = true;
    if (poll_thread_.joinable())
        poll_thread_.join();
}

void control_loop_main::start_poll_thread() {
    poll_thread_ = std::thread([this] {
        while (!stop_requested_)
            poll_func();
    });
}

void control_loop_main::poll_func() {
    rest_client::instance();  // before any other thread needs it
    const unsigned loops = has_two_loops() ? 2 : 1;
    if (loops == 2)
        MSG_LOG(log_channel, msg_log::progress) << "msg: MX47. Activate 2 control loops.";
    if (!wait_for_configuration())
        return;
    const bool coldstart = is_coldstart();
    wait_for_wss_edge();
    take_over_wss_state(loops, coldstart);
    create_warmstart_marker();
    MSG_LOG(log_channel, msg_log::progress) << "msg: Entering periodic control loop.";
    while (!stop_requested_)
        run_cycle(loops);
}

// False when the object is being destroyed instead.
bool control_loop_main::wait_for_configuration() {
    while (!config_done_) {
        if (stop_requested_)
            return false;
        MSG_LOG(log_channel, msg_log::progress)
            << "msg: Waiting for local configuration parameters to be read. starting up "
               "control_loop...";
        host::time().sleep(configuration_pause);
    }
    MSG_LOG(log_channel, msg_log::progress)
        << "msg: Corvelle has now configured everything (status ok) now we can start power "
           "regulation.";
    return true;
}

// Goes on without the WSS edge when it does not get ready: the channels that
// cannot be reached then fail one by one.
void control_loop_main::wait_for_wss_edge() {
    for (unsigned attempt = 0; attempt < wss_edge_attempts; ++attempt) {
        try {
            const bool is_ready = wss_edge_client_->get<bool>("data/configStatus", false);
            host::time().sleep(wss_edge_pause);
            if (is_ready)
                return;
        } catch (const dh_client_exception& error) {
            MSG_LOG(log_channel, msg_log::failure)
                << "msg: Unable to contact WSS_EDGE, " << error.message;
        } catch (...) {
            MSG_LOG(log_channel, msg_log::failure) << "msg: Unable to contact WSS_EDGE.";
        }
    }
}

void control_loop_main::take_over_wss_state(unsigned loops, bool coldstart) {
    MSG_LOG(log_channel, msg_log::detail)
        << "msg: Update last WSS attenuation, before starting to regulate periodically.";
    for (unsigned loop = 0; loop < loops; ++loop) {
        for (unsigned channel = 1; channel <= channel_count; ++channel)
            take_over_channel(loop, channel, coldstart);
    }
}

// A cold start parks the channel; a warm start leaves its light as it is and
// only learns the attenuation in force.
void control_loop_main::take_over_channel(unsigned loop, unsigned channel, bool coldstart) {
    try {
        if (coldstart)
            regulators_[loop]->set_max_wss_attenuation(channel);
        regulators_[loop]->updateLastWssAtt_channel(channel);
    } catch (const dh_client_exception& error) {
        MSG_LOG(log_channel, msg_log::progress) << "msg: Running update last WSS failed, channel-ix"
                                                << channel << ", exception: " << error.message;
    }
}

// A cycle in which no loop may run does not sleep: the read of the booster's
// state is all that paces it then.
void control_loop_main::run_cycle(unsigned loops) {
    if (module_poll_.begin_if([this]() -> bool { return combo_flag_; })) {
        module_poll();
        const bool is_connected = get_slot_communication_status() == "connected";
        regulators_[1]->set_k47_booster_power_limit(
            is_connected ? get_mx47_k47_booster_power_limit() : combined_booster_power_limit);
    }
    booster_enabled_ = booster_client_->get<bool>("data/enable", false);
    for (unsigned loop = 0; loop < loops; ++loop) {
        if (loop_may_run(loop))
            regulate_loop(loop);
    }
}

// The EQ loop does not depend on the booster of this card.
bool control_loop_main::loop_may_run(unsigned loop) const {
    if (loop == 0 && !booster_enabled_) {
        MSG_LOG(log_channel, msg_log::detail) << "booster is disabled, do not perform regulation";
        return false;
    }
    if (loop == 1 && combo_flag_ && !neighbour_booster_enabled_) {
        MSG_LOG(log_channel, msg_log::detail)
            << "mx47 k47 combined, booster is disabled on k47, do not perform regulation";
        return false;
    }
    return true;
}

void control_loop_main::regulate_loop(unsigned loop) {
    for (unsigned channel = 1; channel <= channel_count; ++channel) {
        try {
            regulators_[loop]->regulate_channel(channel, wss_edge_client_);
        } catch (const dh_client_exception& error) {
            MSG_LOG(log_channel, msg_log::progress)
                << "msg: channel-ix" << channel
                << ", running regulate exception: " << error.message;
            host::time().sleep(failed_channel_pause);
        }
    }
    host::time().sleep(loop_pause);
}
