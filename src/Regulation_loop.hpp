// The closed-loop power regulator of one WSS port.
#pragma once

#include "calibration_values.hpp"
#include "channel_record.hpp"
#include "dh_proxy.hpp"
#include "regulation_law.hpp"
#include "shared_field.hpp"

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>

// Moves the WSS attenuation of each channel of its port until the power that
// the monitor (OCM) sees, carried to the regulated point by calibration, is the
// channel's wanted power. It does not know of the other port, of what is kept
// over a restart, nor when its turn is: control_loop_main does.
//
// Channels are numbered 1 to 48 (channel-ix). Powers are in dBm, differences
// and attenuations in dB, times in seconds since the epoch.
//
// `regulate_channel`, `updateLastWssAtt_channel`, `set_max_wss_attenuation` and
// `get_rxAvgPowerChannel` are the poll thread's. All else any thread may call at
// any time; a step of the regulation sees the value of the moment.
//
// What reaches a device handler blocks for its reply and throws
// dh_client_exception where that fails.
class regulation_handler : public std::enable_shared_from_this<regulation_handler> {
  public:
    // `port` is 0 for the first loop and 1 for the EQ loop. The client given is
    // logged only: the object works with clients of its own.
    static std::shared_ptr<regulation_handler> create(
        std::shared_ptr<dh::util::proxy> proxy, std::shared_ptr<device_handler_client> wss_edge,
        unsigned port);
    regulation_handler(std::shared_ptr<dh::util::proxy> proxy,
                       std::shared_ptr<device_handler_client> wss_edge, unsigned port);
    regulation_handler(const regulation_handler&) = delete;
    regulation_handler& operator=(const regulation_handler&) = delete;

    // Prepares the records and publishes the alarms. Once, before any regulation.
    void start();
    int connect_localDhClients();  // always 1
    // Drops the WSS client; connect_localDhClients makes it anew. Until then
    // everything that needs it throws "not connected".
    void reset_all_devicehandler_clients();

    // One pass of the closed loop for one channel. `wss_edge` carries the
    // reading of the monitor.
    void regulate_channel(unsigned ix, const std::shared_ptr<device_handler_client>& wss_edge);

    // --- readings ---
    static long long get_nowSeconds();
    float get_rxAvgPowerChannel(unsigned ix) const;
    float get_txPowerChannel(unsigned ix) const;
    // Power that enters at the client side; -99.0 where the port's mode gives
    // it no meaning. Reads the WSS and the booster.
    float get_rxPowerChannel(unsigned ix);
    bool get_peakDetected(unsigned ix);  // as the monitor sees it now
    float get_rxTiltLoss(unsigned ix) const;
    float get_ocm_rx_power_channel(unsigned ix) const;
    float get_ocm_tx_power_channel(unsigned ix) const;
    std::string get_rxClientStatus(unsigned ix) const;  // "up" or "down"
    bool get_rxLossOfSignalChannel(unsigned ix) const;
    float get_rxPowerDeviationChannel(unsigned ix) const;
    float get_rxRawPowerChannel(unsigned ix) const;
    int get_rxChannelId(unsigned ix) const;
    float get_rxWaveLength(unsigned ix) const;
    float get_rxWssAttenuation(unsigned ix) const;
    float get_rxPowerDiffAvg(unsigned ix) const;
    unsigned get_wss_index(unsigned ix) const { return ix; }

    // --- wanted power and channel budget ---
    void calculate_wanted_power();
    void calculate_maximum_allowed_channels();
    void set_limited_wanted_power(unsigned ix);
    void set_wanted_power(unsigned ix, float value);  // takes any value
    float get_wanted_power(unsigned ix) const;
    // Each is limited to -2.0 to 19.5.
    void set_wantedPowerMax(float value);
    void set_wantedPowerMin(float value);
    void set_wantedPowerDefault(float value);
    float get_wantedPowerMax() const { return wantedPowerMax_; }
    float get_wantedPowerMin() const { return wantedPowerMin_; }
    float get_wantedPowerDefault() const { return wantedPowerDefault_; }
    void set_opticalControlMode(unsigned ix, const std::string& mode);
    std::string get_opticalControlMode(unsigned ix) const;
    void set_numberOfChannels(unsigned count) { numberOfChannels_ = count; }
    void set_number_of_AllowedChannels(int count) { number_of_AllowedChannels_ = count; }
    int get_number_of_AllowedChannels() const { return number_of_AllowedChannels_; }
    int get_number_of_ActiveChannels() const { return number_of_ActiveChannels_; }

    // --- combined mode with a K47 card in the neighbour slot ---
    void set_k47_combo_flag(bool value);
    bool get_k47_combo_flag() const { return k47_combo_flag_; }
    void set_k47_actual_gain(float value) { k47_actual_gain_ = value; }
    float get_k47_actual_gain() const { return k47_actual_gain_; }
    void set_k47_edfa_tx_power(float value) { k47_edfa_tx_power_ = value; }
    float get_k47_edfa_tx_power() const { return k47_edfa_tx_power_; }
    void set_k47_booster_power_limit(float value) { k47_booster_power_limit_ = value; }
    float get_k47_booster_power_limit() const { return k47_booster_power_limit_; }

    // --- booster ---
    // Correction that the calibration to the booster's output calls for; 0.0
    // also where it cannot be told. Changes nothing.
    float get_boosterTx_adjustment();
    float get_boosterActualGain();  // at most 4 s old; 21.0 where it cannot be read
    bool check_wss_dh_status();
    float get_boosterTx() const { return boosterTx_; }
    float get_boosterTx_original() const { return boosterTx_original_; }
    float get_boosterTx_adjustment_diff() const { return boosterTx_original_ - boosterTx_; }
    float get_cal_mon_to_boostertx_k47() const { return boosterTx_; }
    // Keeps the adjusted calibration where the value is the one it started from.
    void set_cal_mon_to_boostertx_k47(float value);

    // --- WSS and port ---
    void set_wss_attenuation(float value, unsigned ix);
    float get_wss_attenuation(unsigned ix);
    // Takes over what the WSS does, and restarts the loss timer.
    void updateLastWssAtt_channel(unsigned ix);
    void block_wss_channel(unsigned ix);
    // Parks the channel at its default attenuation.
    void set_max_wss_attenuation(unsigned ix);
    std::string get_port_mode(int ix);
    void set_port_mode(int ix, const std::string& mode);
    void set_channel_default_attenuation(unsigned ix, float value);
    float get_channel_default_attenuation(unsigned ix) const;
    // A group's default: stored, then given to all idle channels of the group.
    void set_edfa_defaultAttenuation(float value);
    float get_edfa_defaultAttenuation() const;
    void set_express_defaultAttenuation(float value);
    float get_express_defaultAttenuation() const;
    void set_eq_defaultAttenuation(float value);
    float get_eq_defaultAttenuation() const;
    void set_ocm_lanecompensation();  // writes the flag to the monitor
    void set_enable_lanecompensation(const bool& value) { enable_lanecompensation_ = value; }
    bool get_enable_lanecompensation() const { return enable_lanecompensation_; }

    // Whether a channel without a peak was found standing above 23 dB, ever.
    bool get_blocked_channel_lost() const { return blocked_channel_lost_; }

    // --- settings and calibration ---
    void set_verbose_mode(bool value) { verbose_ = value; }
    bool get_verbose_mode() const { return verbose_; }
    void set_lossTimeout(long long seconds) { lossTimeout_ = seconds; }
    long long get_lossTimeout() const { return lossTimeout_; }
    void set_ocm_power_offset_value(float value);
    float get_ocm_power_offset_value() const { return ocm_power_offset_value_; }
    float get_calibration_client_rx() const { return calibration_client_rx_; }
    float get_cal_cloop_wss_il_edfaport() const { return cal_cloop_wss_il_edfaport_; }
    float get_cal_cloop_wss_il_expressport() const { return cal_cloop_wss_il_expressport_; }
    float get_cal_cloop_wss_il_eqport() const { return cal_cloop_wss_il_eqport_; }
    // A value of the board's calibration file. 0, or -1 with the value untouched
    // where it cannot be had; a bool that is no bool reads as false.
    int read_fvalue_from_calibration_file(calibration_values key, float* value);
    int read_bool_value_from_calibration_file(calibration_values key, bool* value);

  private:
    using client_pointer = std::shared_ptr<device_handler_client>;
    using alarm_node = std::shared_ptr<dh::api::status_value<unsigned int>>;

    static constexpr unsigned last_channel = 48;
    static constexpr unsigned alarm_delay_cycles = 1;

    // Limits of the difference to the wanted power.
    struct alarm_limits {
        float low_power_threshold = -18.0F;
        float high_power_diff_limit = 25.0F;
        float low_power_diff_limit = -25.0F;
    };

    // Published one number up: those of channel-ix N under client N + 1.
    struct alarm_nodes {
        alarm_node unSupportedChannel;
        alarm_node lossOfSignal;
        alarm_node lowPower;
        alarm_node highPower;
    };

    struct channel_step;

    // Construction and start.
    void take_port_of_two_loops();
    alarm_node publish_alarm(const std::string& path, unsigned severity);
    alarm_nodes publish_client_alarms(unsigned ix);

    // The calibration file.
    void name_calibration_values();
    void read_calibration();
    std::optional<float> calibration(calibration_values key, const char* name);
    float calibration_or(float fallback, calibration_values key, const char* name);
    float read_booster_calibration();
    float read_edfa_insertion_loss();
    float read_eq_insertion_loss();

    // Throws "not connected" after a reset.
    client_pointer wss_edge() const;
    std::string wss_data_path(unsigned ix, const char* leaf) const;
    std::string wss_config_path(unsigned ix, const char* leaf) const;
    std::string ocm_channel_path(unsigned ix, const char* leaf) const;

    // The gain of the neighbour's booster, where it works for this port.
    std::optional<float> neighbour_gain() const;
    float client_side_power(const channel_record& channel, const std::string& port,
                            float attenuation, float gain) const;
    float read_booster_deviation();
    void open_wanted_power_range(int channels);
    float idle_attenuation(unsigned ix, const std::string& mode) const;
    // Whether the channel was idle in that mode, and so was parked.
    bool park_if_idle(unsigned ix, const char* mode, float attenuation);
    void park_idle_channels(const char* mode, float attenuation);

    // The parts of a step, in their order.
    void tell_paths(unsigned ix) const;
    void adjust_booster_calibration();
    channel_step read_channel(unsigned ix, device_handler_client& wss_edge_client);
    void take_reading(channel_step& step);
    void append_to_history(channel_step& step);
    float calibration_to_regulated_point() const;
    void count_active_channel(channel_step& step);
    bool is_budget_exceeded() const;
    void remember_reading(channel_step& step);
    bool follow_control_mode(channel_step& step);
    void unblock_channel(const channel_step& step);
    void take_peak_state(channel_step& step);
    void restart_loss_timer(channel_step& step);
    static void set_alarm(const alarm_node& node, bool raised);

    void regulate_lit_channel(channel_step& step);
    void tell_decision(const channel_step& step) const;
    void refresh_power_alarms(const channel_step& step);
    void correct_coarsely(channel_step& step);
    void consider_giving_up(channel_step& step, float corrected);
    float limit_correction(channel_step& step, float corrected);
    regulation_law::lane_attenuations widen(const channel_step& step, float attenuation) const;
    void fine_tune(channel_step& step);
    void send_fine_tuning(channel_step& step, float attenuation);

    void await_light(channel_step& step);
    void act_on_loss(channel_step& step);

    const std::shared_ptr<dh::util::proxy> proxy_;
    shared_value<client_pointer> wss_edge_client_;  // empty after a reset
    client_pointer booster_client_;
    const std::uint32_t WSS_port_;
    std::string log_channel_ = "tm_velt_regulation";
    std::string WSS_datapath_ = "data/wss/channel/";
    std::string WSS_configpath_ = "config/wss/channel/";
    std::string OCM_datapath_ = "data/ocm/1/";
    bool is_mx47_ = false;  // the card has two loops

    std::mutex calibration_mutex_;  // held during one read of the calibration file
    std::array<std::string, number_of_calibration_values> calibration_value_names_;
    float calibration_client_rx_ = 0.0F;
    float cal_cloop_wss_il_edfaport_ = 0.0F;  // insertion losses of the WSS
    float cal_cloop_wss_il_expressport_ = 0.0F;
    float cal_cloop_wss_il_eqport_ = 0.0F;
    shared_number<float> boosterTx_;           // from the monitor to the booster's output
    shared_number<float> boosterTx_original_;  // as it was before any adjustment
    long long boosterTx_next_adjustment_ = 0;  // minutes since the epoch
    shared_number<float> ocm_power_offset_value_{20.0F};

    shared_number<bool> verbose_{false};
    shared_number<long long> lossTimeout_{60};  // how long a dark channel keeps its attenuation
    shared_number<float> edfa_defaultAttenuation_{15.0F};
    shared_number<float> express_defaultAttenuation_{15.0F};
    shared_number<float> eq_defaultAttenuation_{15.0F};
    shared_number<bool> enable_lanecompensation_{false};
    bool tiltloss_enabled_ = true;

    shared_number<bool> k47_combo_flag_{false};
    shared_number<float> k47_actual_gain_{-99.0F};  // -99.0: not known
    shared_number<float> k47_edfa_tx_power_{-99.0F};
    shared_number<float> k47_booster_power_limit_{20.0F};

    shared_number<unsigned> numberOfChannels_{last_channel};  // that `start` prepares
    shared_number<int> number_of_AllowedChannels_{0};         // the channel budget
    shared_number<int> number_of_ActiveChannels_{0};
    std::unordered_set<int> active_channels_;  // the poll thread's
    float channel_power_reference_ = 0.0F;
    shared_number<float> wantedPowerMax_;
    shared_number<float> wantedPowerMin_;
    shared_number<float> wantedPowerDefault_;

    std::array<channel_record, 97> channels_;
    std::array<alarm_limits, 96> client_limits_;
    std::array<alarm_nodes, 96> client_alarms_;
    alarm_node pam4_alarm_;
    std::shared_ptr<dh::api::const_value<unsigned int>> total_channels_node_;
    shared_number<bool> blocked_channel_lost_{false};
};
