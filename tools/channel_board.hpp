// What is known of the channels: the last value of each of their paths, what
// state that makes, and how far the regulation of each has come.
#pragma once

#include "channel_tree.hpp"
#include "json.hpp"

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tmctl {

// How a channel stands, in the words of people.
enum class channel_state {
    unknown,     // the tree does not tell
    blocked,     // its mode is "off"
    untended,    // its mode is neither "off" nor "power": it is not regulated
    dark,        // no light
    parked,      // no light, and the attenuation stands where idle channels have it
    regulating,  // outside of the band around the wanted power
    fine,        // within it
};

const char* name(channel_state);
bool is_state_name(std::string_view);

// How far from the wanted power the regulation leaves a channel alone, but for
// its fine-tuning; the limit itself is within.
inline constexpr double band = 0.7;  // dB

using program_time = std::chrono::nanoseconds;

// The way of one channel since the board was made.
struct channel_progress {
    // The regulation corrects a channel once in each of its cycles, so these
    // count cycles too.
    unsigned to_band = 0;  // corrections up to the last that was more than fine-tuning
    unsigned fine = 0;     // corrections since
    std::optional<program_time> first_correction;
    std::optional<program_time> last_correction;
    std::optional<program_time> band_entered;  // none while the channel is not in its band

    // From the first correction to where the channel came into its band for good.
    program_time way_to_band() const;
};

struct channel_readings {
    unsigned channel = 0;
    std::optional<double> wanted;            // dBm
    std::optional<double> rx;                // dBm
    std::optional<double> tx;                // dBm
    std::optional<double> attenuation;       // dB
    std::optional<double> commanded;         // dB, attenuation that was asked for last
    std::optional<double> idle_attenuation;  // dB, of the port mode
    std::optional<std::string> mode;
    std::optional<std::string> port;
    std::optional<bool> light;
    channel_progress progress;

    channel_state state() const;
    // How much the power lies above the wanted one, in dB; none without light.
    std::optional<double> difference() const;
};

class channel_board {
  public:
    channel_board(std::vector<channel_paths> channels, program_time now);

    const std::vector<channel_paths>& paths() const { return paths_; }
    const std::vector<channel_readings>& channels() const { return channels_; }

    // The value of a path; null, or of the wrong type, where it has none. A path
    // that belongs to no channel is passed over. A commanded attenuation that
    // differs from what was known before is a correction, unless it parks the
    // channel.
    void take(std::string_view path, const json::value& value, program_time now);

    // Whether the channel is fine, and was not corrected for that long.
    bool settled(const channel_readings&, program_time now, program_time quiet) const;

  private:
    template <class T>
    using fields =
        std::map<std::string, std::pair<std::size_t, std::optional<T> channel_readings::*>,
                 std::less<>>;

    void find_idle_attenuations();

    const std::vector<channel_paths> paths_;
    const program_time start_;
    std::vector<channel_readings> channels_;
    fields<double> numbers_;
    fields<std::string> texts_;
    std::map<std::string, std::size_t, std::less<>> losses_;
    std::map<std::string, std::optional<double>, std::less<>> idle_attenuations_;
};

}  // namespace tmctl
