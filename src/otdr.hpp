// Reflection measurements of the span, by the transceiver of the supervisory channel.
#pragma once

#include "dh_proxy.hpp"
#include "otdr_measurement.hpp"
#include "shared_field.hpp"

#include <array>
#include <memory>
#include <mutex>
#include <string>

// Starts measurements, keeps the last five in a ring, tells ghosts from real
// reflections, and keeps one measurement on flash as the reference point. The
// transceiver's handler measures. All under "otdr/"; everything but
// "otdr/present" is there only while a transceiver is fitted that can measure.
//
// The operations behind the nodes run on the sessions' threads.
class otdr : public std::enable_shared_from_this<otdr> {
  public:
    // `port` counts from 1. Publishes "otdr/present"; the subscriber gets the
    // events of the client of the system information. The supervisory channel
    // tells the state and the length of the fibre, the transceiver measures it.
    static std::shared_ptr<otdr> create(
        unsigned port, const std::shared_ptr<dh::util::proxy>& proxy,
        const std::shared_ptr<device_handler_connection_subscriber>& subscriber,
        const std::shared_ptr<device_handler_client>& osc,
        const std::shared_ptr<device_handler_client>& sfp);

    otdr(unsigned port, std::shared_ptr<dh::util::proxy> proxy,
         std::shared_ptr<device_handler_client> osc, std::shared_ptr<device_handler_client> sfp,
         std::shared_ptr<device_handler_client> system_info);

    // The transceiver's client, of whose connection the two operations below tell.
    const std::shared_ptr<device_handler_client>& client() const { return sfp_; }

    // To be called when the transceiver's handler has come or gone. Waits 3 s of
    // the program's time, for the handler to settle, on the first connection and
    // after each loss. Measurements do not outlive the handler's connection; the
    // reference point is read anew.
    void on_connect_sfp();
    void on_disconnect_sfp();

    // --- what the nodes are bound to ---

    // Measures, whatever the argument; blocks for as long as that takes. One
    // measurement at a time: a further call waits. Throws dh_error -22 where
    // there is no result; then nothing has changed.
    bool set_measure(bool);
    // Makes the measurement `number`, 1 to 5, the reference point. Whether it was
    // stored; it is the reference point in either case. Throws dh_error -22
    // where there is no such measurement.
    bool set_save_refpoint(int number);
    bool set_delete_refpoint(bool);
    // The number is 1 to 5; throws dh_error -22 otherwise.
    bool set_delete_measurement(int number);

    json::document get_refpoint();
    json::document get_measurement(int slot);  // 0 to 4
    unsigned get_pointer();                    // slot of the next measurement
    float get_osc_fiberlength();               // km

  private:
    void create_paths();
    void start();
    void on_sfp_present_state_change();
    void on_sfp_insert();
    void on_sfp_remove();

    void enter_available();
    void enter_absent();
    void add_attributes();
    void remove_attributes();
    void add_attribute(const std::shared_ptr<dh_db_leaf_node>& node);

    otdr_measurement measure();
    void read_reflections(otdr_measurement& measured);
    void detect_ghost(unsigned slot);
    void read_link(otdr_measurement& measured);

    bool replace_refpoint(const otdr_measurement& point);
    void read_refpoint_save();

    static constexpr unsigned slots = 5;

    const unsigned port_;
    const std::string present_path_;  // of the mirrored state of the transceiver
    const std::shared_ptr<dh::util::proxy> proxy_;
    const std::shared_ptr<device_handler_client> osc_;
    const std::shared_ptr<device_handler_client> sfp_;
    const std::shared_ptr<device_handler_client> system_info_;  // only held

    std::shared_ptr<dh::api::status_value<bool>> present_;  // made by create_paths

    // Held from the question what is fitted until the tree agrees with the
    // answer, so that an event that comes meanwhile is not overtaken. Guards what
    // follows.
    std::mutex transceiver_mutex_;
    dh::api::value_group attributes_{1000, 0, 0};
    std::shared_ptr<dh::api::status_value<bool>> config_status_;  // while there are attributes
    bool was_present_ = true;
    shared_number<bool> is_subscribed_{false};  // to the handler that is there now

    std::mutex measure_mutex_;
    std::array<shared_value<otdr_measurement>, slots> measurements_;
    std::mutex refpoint_file_mutex_;  // the file and refpoint_ change together
    shared_value<otdr_measurement> refpoint_;
    shared_number<unsigned> next_slot_;
    shared_number<unsigned> osc_fiber_length_;  // m, of the last pass that could tell
};
