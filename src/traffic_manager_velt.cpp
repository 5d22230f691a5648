#include "traffic_manager_velt.hpp"

#include "board.hpp"
#include "host.hpp"
#include "msg_log.hpp"

#include <chrono>

using namespace std::chrono_literals;

namespace {

constexpr char startup_channel[] = "tm_velt_startup";
constexpr char monitoring_channel[] = "tm_velt_monitoring";

constexpr auto monitoring_limit = 90s;
constexpr auto readiness_pause = 1s;

// What holds on a card whose settings were never changed.
constexpr unsigned default_max_channels = 40;
constexpr unsigned default_eq_max_channels = 48;
constexpr float default_attenuation = 15.1F;  // dB

bool has_control_loop() {
    const device_tree_lib& board = device_tree_lib::instance();
    return board.is_velt_t47() || board.is_velt_mx47();
}

// A handler that cannot be asked is not ready.
bool has_config_status(device_handler_client& client) {
    try {
        return client.get<bool>("data/configStatus", false);
    } catch (const dh_client_exception&) {
        return false;
    }
}

}  // namespace

traffic_manager_velt::traffic_manager_velt(dh_db& db)
    : db_(db), proxy_(std::make_shared<dh::util::proxy>(db, &mutex_)) {}

void traffic_manager_velt::start() {
    proxy_->excluded_prefixes.insert("/debug/");
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
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting Booster.";
    start_booster();
    MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting WSS-EDGE.";
    start_wss_edge();
    if (has_control_loop()) {
        MSG_LOG(startup_channel, msg_log::progress) << "msg: Starting controlloop.";
        start_control_loop();
        MSG_LOG(startup_channel, msg_log::progress) << "msg: Updating using config parameters.";
        update_using_configuration_parameters();
    }
}

void traffic_manager_velt::start_booster() {
    booster_client_ = create_client("/tmp/device_handlers/booster", "booster");
}

void traffic_manager_velt::start_wss_edge() {
    wss_edge_client_ = create_client("/tmp/device_handlers/wss_edge", "wss_edge");
}

std::shared_ptr<device_handler_client> traffic_manager_velt::create_client(
    const std::string& unix_path, const std::string& name) {
    auto client = device_handler_client::create(unix_path, name, {});
    proxy_->clients.push_back(client);
    return client;
}

void traffic_manager_velt::start_control_loop() {
    control_loop_ = control_loop_main::create(proxy_, nullptr, wss_edge_client_, booster_client_);
    control_loop_->create_paths();
}

void traffic_manager_velt::update_using_configuration_parameters() {
    control_loop_->set_maxChannels_nosave(0, default_max_channels);
    if (control_loop_main::has_two_loops())
        control_loop_->set_maxChannels_nosave(1, default_eq_max_channels);
    control_loop_->set_edfa_defaultAttenuation_nosave(default_attenuation);
    if (!control_loop_main::has_two_loops())
        control_loop_->set_express_defaultAttenuation_nosave(default_attenuation);
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
    if (!has_config_status(*booster_client_))
        return false;
    return device_tree_lib::instance().is_velt_k47() || has_config_status(*wss_edge_client_);
}
