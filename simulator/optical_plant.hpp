// The light of one control loop: clients, span, wavelength selective switch
// (WSS), booster, and the optical channel monitor behind it. The EQ port of a
// two-port card has no booster: its monitor sees what leaves the switch, or the
// output of an amplifier card's booster that is connected to it.
//
//     launch power --span--> card input --WSS--> booster input --booster--> line
//                               |                                   |
//                        receive monitor                    channel monitor
//
// Units: powers in dBm, losses, gains and attenuations in dB; a loss is positive
// and makes light weaker. Channels are numbered 1 to `channel_count`, from the
// lowest optical frequency up.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace simulator {

inline constexpr unsigned channel_count = 48;

// One entry a channel; entry 0 is not used.
template <class T>
using per_channel = std::array<T, channel_count + 1>;

// What a power meter shows where there is no light.
inline constexpr double darkness = -60.0;

// How a channel passes the WSS. A channel that is off, or attenuated by
// `blocked_attenuation`, leaks `extinction` below what would pass.
// The ports of a two-port card are on or off.
enum class port_mode { off, edfa, express, on };

inline constexpr double blocked_attenuation = 25.5;
inline constexpr double attenuation_step = 0.1;

// The name that the WSS handler's paths use.
std::string name_of(port_mode);

// The nearest attenuation that the WSS can set: within 0 and
// `blocked_attenuation`, in steps of `attenuation_step`.
double settable_attenuation(double attenuation);

// What the hardware is like: the same for the life of a card.
struct plant_model {
    double edfa_insertion_loss = 5.0;
    double express_insertion_loss = 8.0;
    double port_insertion_loss = 5.0;  // of a port that is on
    double extinction = 40.0;
    bool has_booster = true;
    double monitor_tap_loss = 20.2;  // from the output to the channel monitor
    // The same behind the booster of a neighbour card, for a port without its own.
    double neighbour_monitor_tap_loss = 21.4;
    double receive_tap_loss = 13.0;  // from the card's input to the receive monitor
    double booster_tilt = 0.6;       // gain of channel 48 above that of channel 1
    double booster_ripple = 0.4;     // amplitude over wavelength
    double booster_noise_figure = 5.5;
    double booster_absorption = 30.0;        // loss of a booster without pump light
    double booster_meter_error = 0.15;       // the booster shows its output that much too high
    double booster_input_threshold = -30.0;  // weakest total input that is no loss of signal
    double monitor_ripple = 0.15;            // largest error of the monitor's reading of a channel
    double detection_threshold = -32.0;      // weakest channel power at the monitor with a peak

    // As the card comes from the shelf.
    port_mode first_port = port_mode::edfa;
    double first_launch_power = 0.0;  // of the middle one of the channels
    double first_span_loss = 5.0;
    double first_booster_gain = 22.0;
    double first_booster_power_limit = 23.0;
};

// The modes that a channel's port can have on such a card.
std::vector<port_mode> port_modes(const plant_model& model);

// The two ports of a card that has an EQ port beside that of its booster.
plant_model edfa_port_model();
plant_model eq_port_model();

// An amplifier card, fed by such an EQ port.
plant_model amplifier_model();

// What hands may turn: clients, fibres, handlers, faults.
struct plant_controls {
    struct channel {
        double launch_power = 0.0;
        bool lit = false;
        port_mode port = port_mode::edfa;
        double attenuation = 15.0;
    };

    per_channel<channel> channels{};
    double span_loss = 5.0;
    bool fibre_intact = true;
    bool booster_connected = true;      // the port's own is, a neighbour's may be
    bool booster_enabled = true;        // as its handler was told
    bool booster_fault = false;         // off, whatever its handler was told
    double booster_gain = 22.0;         // where the output power limit allows it
    double booster_power_limit = 23.0;  // of all channels and noise together
    double monitor_noise = 0.005;       // standard deviation of a reading

    bool booster_on() const { return booster_enabled && !booster_fault; }
};

// Ranges outside of which no light of this kind exists.
struct range {
    double low;
    double high;

    bool contains(double value) const { return value >= low && value <= high; }
    double nearest(double value) const;  // NaN gives `low`
};
inline constexpr range launch_power_range{-60.0, 20.0};
inline constexpr range span_loss_range{0.0, 60.0};
inline constexpr range booster_gain_range{0.0, 35.0};
inline constexpr range booster_power_limit_range{-10.0, 30.0};
inline constexpr range monitor_noise_range{0.0, 3.0};

// A card as it comes from the shelf: 40 channels lit with powers that the seed
// spreads over 4 dB; every sixth channel is dark.
plant_controls default_controls(std::uint64_t seed, const plant_model& model = {});

// The true powers.
struct light {
    per_channel<double> output{};           // of the port, noise in the channel's slot included
    double input_total = darkness;          // at the card's input
    double booster_input_total = darkness;  // behind the WSS
    double output_total = darkness;
    double booster_gain = 0.0;  // in force, averaged over wavelength
    double monitor_tap_loss = 0.0;
};

// What the channel monitor says of one channel.
struct channel_reading {
    float power = static_cast<float>(darkness);  // at the monitor
    bool detected = false;
    int id = 0;
};

// The arithmetic. Values in, values out: no clock, no lock, no state but the
// seed. The same seed and arguments give the same result. Any thread may call.
class optical_plant {
  public:
    explicit optical_plant(std::uint64_t seed, plant_model model = {});

    const plant_model& model() const { return model_; }

    // Where the light goes. The booster's gain falls for all channels alike
    // when their sum would pass the power limit.
    light propagate(const plant_controls&) const;

    // The monitors' readings, in steps of 0.01 dB. Readings of one sweep repeat,
    // those of different sweeps differ by the reading noise.
    channel_reading read_channel(const light&, unsigned channel, std::uint64_t sweep,
                                 double noise) const;
    float read_output_total(const light&, std::uint64_t sweep, double noise) const;
    float read_input_total(const light&, std::uint64_t sweep, double noise) const;

    // What the booster shows of itself.
    float booster_output_power(const light&) const;
    float booster_input_power(const light&) const;

  private:
    double amplified_by(const plant_controls&) const;
    double gain_of(unsigned channel, double average_gain) const;
    float reading(double power, std::uint64_t meter, std::uint64_t sweep, double noise) const;

    const std::uint64_t seed_;
    const plant_model model_;
    per_channel<double> booster_shape_{};  // gain above the average, dB
    per_channel<double> monitor_error_{};  // dB
};

}  // namespace simulator
