// The control loop of the card: one or two regulators, the thread that drives
// them, and the published control tree.
#pragma once

#include "dh_proxy.hpp"
#include "msg_log.hpp"
#include "redis_client.hpp"
#include "Regulation_loop.hpp"
#include "running_poll.hpp"
#include "shared_field.hpp"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <thread>

// Owns the regulators and the poll thread, which takes over the hardware in a
// cold or a warm start and then regulates channel by channel, cycle after
// cycle. The setters and getters stand behind the paths of the tree: they are
// called by the server's session threads and the value group's thread, and do
// not wait for the poll thread.
//
// `port` is the index of a regulator: 0 is the first loop, 1 the EQ loop of a
// two-loop card; one that the card does not have throws std::out_of_range, and
// nothing is saved for it. `channel` is a channel-ix, 1 to 48. Powers are in dBm,
// attenuations in dB. What reaches a device handler throws dh_client_exception
// where the handler cannot be reached.
class control_loop_main : public std::enable_shared_from_this<control_loop_main> {
  public:
    static constexpr unsigned channel_count = 48;

    // Whether this card regulates two loops.
    static bool has_two_loops();

    // Makes the regulators and starts the poll thread. The subscriber gets the
    // connection events of the system information's client.
    static std::shared_ptr<control_loop_main> create(
        std::shared_ptr<dh::util::proxy> proxy,
        std::shared_ptr<device_handler_connection_subscriber> subscriber,
        std::shared_ptr<device_handler_client> wss_edge_client,
        std::shared_ptr<device_handler_client> booster_client);

    control_loop_main(std::shared_ptr<dh::util::proxy> proxy,
                      std::shared_ptr<device_handler_client> wss_edge_client,
                      std::shared_ptr<device_handler_client> booster_client,
                      std::shared_ptr<device_handler_client> system_info_client);
    // Waits until the poll thread has finished the cycle that it is in.
    ~control_loop_main();
    control_loop_main(const control_loop_main&) = delete;
    control_loop_main& operator=(const control_loop_main&) = delete;

    // Publishes the control tree of this card. Called once, by the start-up.
    void create_paths();

    // The poll thread waits until the configuration is done.
    bool get_configDone() const { return config_done_; }
    void set_configDone(bool done) { config_done_ = done; }

    float get_edfa_gain() const { return edfa_gain_; }
    void set_edfa_gain(float gain) { edfa_gain_ = gain; }
    float get_sfp_attenuation() const { return sfp_attenuation_; }
    void set_sfp_attenuation(float attenuation) { sfp_attenuation_ = attenuation; }

    // The attenuation of idle channels by the mode of their port; the getters
    // yield what was last given.
    float get_edfa_defaultAttenuation() const { return edfa_default_attenuation_; }
    float get_express_defaultAttenuation() const { return express_default_attenuation_; }
    float get_eq_defaultAttenuation() const { return eq_default_attenuation_; }
    void set_edfa_defaultAttenuation(float attenuation);
    void set_edfa_defaultAttenuation_nosave(float attenuation);
    void set_express_defaultAttenuation(float attenuation);
    void set_express_defaultAttenuation_nosave(float attenuation);
    void set_eq_defaultAttenuation(float attenuation);
    void set_eq_defaultAttenuation_nosave(float attenuation);

    // The same of one channel.
    float get_channel_default_attenuation(unsigned port, unsigned channel) const;
    void set_channel_default_attenuation(unsigned port, unsigned channel, float attenuation);
    void set_channel_default_attenuation_nosave(unsigned port, unsigned channel, float attenuation);

    // WSS insertion losses of the calibration.
    float get_cal_cloop_wss_il_edfaport() const;
    float get_cal_cloop_wss_il_expressport() const;
    float get_cal_cloop_wss_il_eqport() const;

    float get_wantedPowerMax(unsigned port) const;
    float get_wantedPowerMin(unsigned port) const;
    float get_wantedPowerDefault(unsigned port) const;
    void set_wantedPowerMax(unsigned port, float power);
    void set_wantedPowerMin(unsigned port, float power);
    float get_wanted_power(unsigned port, unsigned channel) const;
    void set_wanted_power(unsigned port, unsigned channel, float power);
    void set_wanted_power_nosave(unsigned port, unsigned channel, float power);

    float get_rxPower(unsigned port, unsigned channel) const;
    float get_txPower(unsigned port, unsigned channel) const;

    // The number of channels that share the booster's power. Setting it gives
    // all channels of the port the default wanted power that follows from it.
    unsigned get_maxChannels(unsigned port) const;
    void set_maxChannels(unsigned port, unsigned count);
    void set_maxChannels_nosave(unsigned port, unsigned count);
    void set_number_of_AllowedChannels(unsigned port, unsigned count);
    unsigned get_number_of_ActiveChannels(unsigned port) const;
    void calculate_wanted_power(unsigned port);

    float get_booster_TX_Adjustment(unsigned port) const;
    float get_booster_TX_Adjustment_Diff(unsigned port) const;
    float get_booster_Tx(unsigned port) const;
    float get_booster_Tx_Original(unsigned port) const;

    // How long a channel that lost its light keeps its attenuation, in seconds.
    long long get_lossTimeout(unsigned port) const;
    void set_lossTimeout(unsigned port, long long seconds);

    bool get_verbose_mode(unsigned port) const;
    void set_verbose_mode(unsigned port, bool verbose);

    // "off", "edfa", "express" or "on".
    std::string get_port_mode(unsigned port, int channel) const;
    void set_port_mode(unsigned port, int channel, const std::string& mode);
    // "power" or "off".
    std::string get_optical_ControlMode(unsigned port, unsigned channel) const;
    void set_optical_ControlMode(unsigned port, unsigned channel, const std::string& mode);

    // --- two-loop cards only ---

    // What the monitor itself shows of a channel.
    float get_mx47_ocm_rx_power_channel(unsigned port, unsigned channel) const;
    float get_mx47_ocm_tx_power_channel(unsigned port, unsigned channel) const;
    // Between the EQ port's monitor and the port.
    float get_mx47_ocm_power_offset_value() const;
    void set_mx47_ocm_power_offset_value(float offset);
    void set_mx47_ocm_power_offset_value_nosave(float offset);

    // The amplifier card in the neighbour slot, as the EQ loop knows it.
    float get_mx47_cal_mon_to_boostertx_k47() const;
    void set_mx47_k47_cal_mon_to_boostertx(float value);
    float get_mx47_k47_actual_gain() const;
    void set_mx47_k47_actual_gain(float gain);
    float get_mx47_k47_edfa_tx_power() const;
    void set_mx47_k47_edfa_tx_power(float power);
    float get_mx47_k47_booster_power_limit() const;
    void set_mx47_k47_booster_power_limit(float limit);

    // Whether the EQ loop works together with that card: "enabled", any other
    // text is no. Switching it off waits for the end of a running poll.
    std::string get_mx47_k47_combo_flag() const;
    void set_mx47_k47_combo_flag(const std::string& text);
    void set_mx47_k47_combo_flag_nosave(const std::string& text);
    bool slot_communication_is_alive() const { return slot_communication_alive_; }
    bool get_correct_neighbour_version() const { return correct_neighbour_version_; }
    // "n/a", "connecting", "ok" or "alarm".
    std::string get_slot_communication_status() const { return slot_communication_status_.get(); }

  private:
    class poll_end;

    regulation_handler& regulator(unsigned port) const;

    void start_poll_thread();
    void poll_func();
    bool wait_for_configuration();
    void wait_for_wss_edge();
    void take_over_wss_state(unsigned loops, bool coldstart);
    void take_over_channel(unsigned loop, unsigned channel, bool coldstart);
    void run_cycle(unsigned loops);
    bool loop_may_run(unsigned loop) const;
    void regulate_loop(unsigned loop);

    // All on the poll thread. Throw nothing but what a client of this card throws.
    void module_poll();
    std::string poll_slot_neighour();
    bool neighbour_slot_connected();
    bool connect_neighbour(const std::string& address);
    void drop_neighbour();
    void read_neighbour_booster();
    void judge_missing_neighbour();
    void raise_combined_mode_alarm();
    void set_combined_mode_alarm(unsigned severity);
    msg_log::severity_level poll_severity() const;

    void apply_max_channels(unsigned port, unsigned count);
    void apply_eq_default_attenuation(float attenuation);
    void apply_channel_default_attenuation(const char* setter, unsigned port, unsigned channel,
                                           float attenuation);

    void create_paths_t47();
    void create_channel_paths_t47(unsigned channel);
    void create_paths_mx47();
    void create_port_paths_mx47(unsigned port);
    void create_channel_paths_mx47(unsigned port, unsigned channel);
    void create_common_paths();
    template <auto Getter, class... Bound>
    void add_volatile_value(const std::string& path, Bound... bound);
    template <auto Setter, class... Bound>
    void add_config_param(const std::string& path, Bound... bound);
    template <auto Getter, class... Bound>
    void add_measured_power(const std::string& path, Bound... bound);
    template <auto Getter, class... Bound>
    void add_set_value(const std::string& path, unsigned delay, Bound... bound);

    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> wss_edge_client_;
    const std::shared_ptr<device_handler_client> booster_client_;
    const std::shared_ptr<device_handler_client> system_info_client_;
    redis_client& key_value_store_ = redis_client::instance();
    // Of the card in the neighbour slot; null while it is not connected.
    std::shared_ptr<device_handler_ipv6_client> neighbour_booster_;
    std::shared_ptr<device_handler_ipv6_client> neighbour_system_info_;
    std::optional<std::string> neighbour_location_;  // its slot's index, once it is known
    // Filled before the poll thread starts, and not changed from then on.
    std::array<std::shared_ptr<regulation_handler>, 2> regulators_;
    shared_number<bool> stop_requested_{false};
    shared_number<bool> config_done_{false};
    std::thread poll_thread_;
    shared_number<float> edfa_default_attenuation_{0.0F};
    shared_number<float> express_default_attenuation_{0.0F};
    shared_number<float> eq_default_attenuation_{0.0F};
    shared_number<unsigned> max_channels_{40};  // of the port that was set last
    shared_number<float> edfa_gain_{0.0F};
    shared_number<float> sfp_attenuation_{0.0F};
    shared_number<bool> combo_flag_{false};
    shared_number<bool> verbose_{false};
    shared_number<bool> slot_communication_alive_{true};
    shared_number<bool> correct_neighbour_version_{true};
    running_poll module_poll_;
    shared_value<std::string> slot_communication_status_{"n/a"};
    using alarm_node = std::shared_ptr<dh::api::status_value<unsigned>>;
    shared_value<alarm_node> combined_mode_alarm_;  // null without its path
    shared_number<bool> booster_enabled_{false};
    shared_number<bool> neighbour_booster_enabled_{false};
};
