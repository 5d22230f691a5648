// The top object of the daemon: owns the functional objects of the card and
// starts them in their order.
#pragma once

#include "booster.hpp"
#include "cloopl.hpp"
#include "control_loop.hpp"
#include "dh_proxy.hpp"
#include "led.hpp"
#include "osc.hpp"
#include "otdr.hpp"
#include "ppm.hpp"
#include "sfp_interface.hpp"
#include "wss_edge.hpp"

#include <array>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

// Must be owned by a shared_ptr. The constructor touches no device.
class traffic_manager_velt : public std::enable_shared_from_this<traffic_manager_velt> {
  public:
    explicit traffic_manager_velt(dh_db& db);

    // Starts all functional objects, then waits, at most 90 s, until the device
    // handlers are ready. Called once, by the main thread. Throws what a
    // functional object throws that cannot be started.
    void start();

    // Always 0; a call that hangs shows that somebody holds the main mutex.
    unsigned mutex_status();

    // What all functional objects are given. The main mutex guards its clients.
    const std::shared_ptr<dh::util::proxy>& proxy() const { return proxy_; }

    class connection_listener;

  private:
    using config_status_node = dh::api::status_value<bool, std::greater<bool>>;

    void publish_own_nodes();
    void start_modules();
    void start_ppm();
    void start_interface();
    void start_booster();
    void start_wss_edge();
    void start_osc();
    void start_control_loop();
    void start_leds();
    void start_cloopl();
    void start_otdr();

    void update_using_configuration_parameters();
    void await_wss_edge_configuration();
    void restore_max_channels();
    void restore_channels_t47();
    void restore_channels_mx47();
    void restore_wanted_power_mx47(unsigned port, const char* port_name, unsigned channel);
    void restore_eq_channel_attenuation(unsigned channel);
    void restore_edfa_channel_attenuation(unsigned channel);
    void restore_combined_mode();
    void restore_default_attenuations();

    template <class Module>
    void mirror_while_connected(const std::shared_ptr<Module>& module);
    template <class Object>
    void follow_connection(const std::string& client_name, const std::shared_ptr<Object>& object,
                           void (Object::*on_connect)(), void (Object::*on_disconnect)());

    void monitor_readiness();
    void wait_until_ready() const;
    bool is_ready() const;

    dh_db& db_;
    dh::api::value_group value_group_{1000, 0, 0};
    std::mutex mutex_;  // the program's main mutex
    std::shared_ptr<config_status_node> config_status_;
    std::shared_ptr<dh::util::proxy> proxy_;
    std::shared_ptr<connection_listener> listener_;
    std::array<std::shared_ptr<ppm_slot>, 2> ppm_slots_;
    std::shared_ptr<led> led_;
    std::shared_ptr<booster> booster_;
    std::shared_ptr<wss_edge> wss_edge_;
    std::array<std::shared_ptr<sfp_interface>, 2> sfp_interfaces_;
    std::array<std::shared_ptr<osc>, 2> oscs_;
    std::shared_ptr<control_loop_main> control_loop_;
    std::shared_ptr<cloopl> cloopl_;
    std::shared_ptr<otdr> otdr_;
};
