#include "traffic_manager_velt.hpp"

#include "board.hpp"
#include "connection_listener.hpp"
#include "host.hpp"
#include "msg_log.hpp"

#include <algorithm>
#include <chrono>
#include <future>

using namespace std::chrono_literals;

namespace {

constexpr char startup_channel[] = "tm_velt_startup";
constexpr char monitoring_channel[] = "tm_velt_monitoring";

constexpr auto monitoring_limit = 90s;
constexpr auto readiness_pause = 1s;
// Between the end of a module's work and the end of its mirror.
constexpr auto disconnect_pause = 10ms;

// Of the supervisory channel on the line side, and of its transceiver.
constexpr unsigned line_index = 1;

bool has_control_loop() {
    const device_tree_lib& board = device_tree_lib::instance();
    return board.is_velt_t47() || board.is_velt_mx47();
}

}  // namespace

traffic_manager_velt::traffic_manager_velt(dh_db& db)
    : db_(db), proxy_(std::make_shared<dh::util::proxy>(db, &mutex_)) {}

void traffic_manager_velt::start() {
    listener_ = std::make_shared<connection_listener>(shared_from_this());
    proxy_->exclude("/debug/");
    publish_own_nodes();
    start_modules();
    monitor_readiness();
}

unsigned traffic_manager_velt::mutex_status() {
    const std::lock_guard lock(mutex_);
    return 0;
}

void traffic_manager_velt::publish_own_nodes() {
    config_status_ = config_status_node::create(db_, "data/configStatus", false, 1);
    value_group_.add_value(config_status_, 1);
    value_group_.add_value(dh::api::volatile_value<&traffic_manager_velt::mutex_status>::create(
                               db_, "data/mutexStatus", shared_from_this()),
                           0);
}

// Connection events and whoever else takes the main mutex wait until all
// modules stand.
void traffic_manager_velt::start_modules() {
    const std::lock_guard lock(mutex_);
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting PPM.";
    start_ppm();
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting Interface.";
    start_interface();
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting Booster.";
    start_booster();
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting WSS-EDGE.";
    start_wss_edge();
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting OSC.";
    start_osc();
    if (has_control_loop()) {
        MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting controlloop.";
        start_control_loop();
    }
    start_leds();
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting Cloopl";
    start_cloopl();
    start_otdr();
    if (has_control_loop()) {
        MSG_LOG(startup_channel, msg_log::progress) << "msg: Updating using config parameters.";
        update_using_configuration_parameters();
    }
}

template <class Module>
void traffic_manager_velt::mirror_while_connected(const std::shared_ptr<Module>& module) {
    const auto client = module->client();
    listener_->on_established(client->name(), [proxy = proxy_, module, client] {
        proxy->subscribe_path(client, "");
        module->on_connect();
    });
    listener_->on_lost(client->name(), [proxy = proxy_, module, client] {
        module->on_disconnect();
        host::time().sleep(disconnect_pause);
        proxy->unsubscribe_path(client, "");
    });
}

template <class Object>
void traffic_manager_velt::follow_connection(const std::string& client_name,
                                             const std::shared_ptr<Object>& object,
                                             void (Object::*on_connect)(),
                                             void (Object::*on_disconnect)()) {
    listener_->on_established(client_name, [object, on_connect] { (*object.*on_connect)(); });
    listener_->on_lost(client_name, [object, on_disconnect] {
        (*object.*on_disconnect)();
        host::time().sleep(disconnect_pause);
    });
}

void traffic_manager_velt::start_ppm() {
    for (unsigned index = 0; index < ppm_slots_.size(); ++index) {
        ppm_slots_[index] = ppm_slot::create(index, proxy_, listener_);
        mirror_while_connected(ppm_slots_[index]);
    }
}

void traffic_manager_velt::start_interface() {
    for (unsigned index = 0; index < sfp_interfaces_.size(); ++index) {
        sfp_interfaces_[index] = sfp_interface::create(index, proxy_, listener_);
        mirror_while_connected(sfp_interfaces_[index]);
    }
}

void traffic_manager_velt::start_booster() {
    booster_ = booster::create(proxy_, listener_);
    mirror_while_connected(booster_);
}

void traffic_manager_velt::start_wss_edge() {
    wss_edge_ = wss_edge::create(proxy_, listener_);
    mirror_while_connected(wss_edge_);
}

void traffic_manager_velt::start_osc() {
    for (unsigned index = 0; index < oscs_.size(); ++index) {
        oscs_[index] = osc::create(index, proxy_, listener_);
        mirror_while_connected(oscs_[index]);
    }
}

void traffic_manager_velt::start_control_loop() {
    control_loop_ =
        control_loop_main::create(proxy_, listener_, wss_edge_->client(), booster_->client());
    control_loop_->create_paths();
}

void traffic_manager_velt::start_leds() {
    led_ = led::create(proxy_);
    led_->start();
}

void traffic_manager_velt::start_cloopl() {
    const auto osc_client = oscs_[line_index]->client();
    const auto sfp_client = sfp_interfaces_[line_index]->client();
    cloopl_ = cloopl::create(line_index + 1, proxy_, listener_, osc_client, sfp_client);
    follow_connection(osc_client->name(), cloopl_, &cloopl::on_connect_osc,
                      &cloopl::on_disconnect_osc);
    follow_connection(sfp_client->name(), cloopl_, &cloopl::on_connect_sfp,
                      &cloopl::on_disconnect_sfp);
}

void traffic_manager_velt::start_otdr() {
    otdr_ = otdr::create(line_index + 1, proxy_, listener_, oscs_[line_index]->client(),
                         sfp_interfaces_[line_index]->client());
    follow_connection(otdr_->client()->name(), otdr_, &otdr::on_connect_sfp,
                      &otdr::on_disconnect_sfp);
}

// Not being ready in time is no reason not to serve.
void traffic_manager_velt::monitor_readiness() {
    MSG_LOG(monitoring_channel, msg_log::progress)
        << "msg: Traffic manager monitoring config status, wait up to " << monitoring_limit.count()
        << " seconds.";
    const auto begin = host::time().monotonic();
    // Where no thread can be had now the task stays deferred, and nothing is waited for.
    std::future<void> readiness = std::async([this] { wait_until_ready(); });
    if (readiness.wait_for(host::real_duration(monitoring_limit)) == std::future_status::timeout)
        MSG_LOG(monitoring_channel, msg_log::failure) << "msg: Traffic manager is not ready within "
                                                      << monitoring_limit.count() << " seconds.";
    config_status_->set(true);  // also what ends the task
    readiness.get();
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(host::time().monotonic() - begin);
    MSG_LOG(monitoring_channel, msg_log::progress)
        << "msg: Traffic manager startup elapsed time: " << elapsed.count() << " ms.";
}

void traffic_manager_velt::wait_until_ready() const {
    while (!config_status_->latest() && !is_ready())
        host::time().sleep(readiness_pause);
}

bool traffic_manager_velt::is_ready() const {
    return booster_->is_ready() &&
           std::all_of(oscs_.begin(), oscs_.end(),
                       [](const auto& osc) { return osc->is_ready(); }) &&
           (device_tree_lib::instance().is_velt_k47() || wss_edge_->is_ready());
}
