// The fibre span on the card's line side, as its supervisory channel has it: the
// fibre on which light comes in, with whoever sends into its far end.
#pragma once

#include "device_handler_client.hpp"
#include "fibre_trace.hpp"
#include "optical_plant.hpp"
#include "osc_link.hpp"
#include "pluggable_modules.hpp"

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace simulator {

struct line_state {
    double fibre_loss = 9.0;      // dB
    double connector_loss = 1.0;  // of all connectors together, dB
    double far_power = 1.5;       // what the far end sends, dBm
    bool intact = true;
    double cut_distance = 10'000.0;  // of the place where it is cut when it is not intact, m
    // What a pulse meets besides the end of the fibre.
    std::vector<reflector> reflectors{{400.0, -45.0}, {5200.0, -50.0}, {12'100.0, -48.0}};
};

// Keeps what the transceiver receives, and whether the link has light, up to
// date with the span, the transceivers and the far end. Any thread may call any
// member. A value out of its range is dh_error -22.
class supervisory_line {
  public:
    // The far end is another simulated card, of which this is the root below
    // VELT_ROOT; it is asked for what it sends. Without one it always sends.
    supervisory_line(std::shared_ptr<osc_link> link, std::shared_ptr<sfp_bay> transceiver,
                     const std::optional<std::string>& far_root);
    ~supervisory_line();
    supervisory_line(const supervisory_line&) = delete;
    supervisory_line& operator=(const supervisory_line&) = delete;

    float fibre_loss() const;
    void set_fibre_loss(float);
    float connector_loss() const;
    void set_connector_loss(float);
    float far_power() const;
    void set_far_power(float);
    bool intact() const;
    void set_intact(bool);
    float cut_distance() const;
    void set_cut_distance(float);
    // As parse_reflectors takes it.
    std::string reflectors() const;
    void set_reflectors(const std::string&);

    // What the card sends into the span, dBm; -99 without a transceiver.
    float sent_power() const;

    // What a pulse that the card sends meets, up to the end of the fibre.
    std::vector<reflector> met_by_a_pulse() const;
    double loss_per_km() const;

  private:
    line_state now() const;
    template <class Edit>
    void change(const Edit&);

    void run();
    // What comes out of the far end's transceiver, dBm; nothing where that is dark.
    std::optional<double> far_light(const line_state&) const;
    void receive(const line_state&);

    const std::shared_ptr<osc_link> link_;
    const std::shared_ptr<sfp_bay> transceiver_;
    const std::shared_ptr<device_handler_client> far_end_;  // null without a card there

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    line_state now_;                 // guarded by the mutex
    bool stopping_ = false;          // guarded by the mutex
    bool is_to_look_ = true;         // guarded by the mutex
    std::optional<float> received_;  // dBm, as last shown; the thread's own
    std::thread thread_;
};

}  // namespace simulator
