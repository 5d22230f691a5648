// Where a card's tree publishes its channels.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tmctl {

// The paths of one channel. All but the attenuations are in the traffic
// manager's tree, those in that of the WSS handler.
struct channel_paths {
    unsigned channel;
    std::string wanted;
    std::string rx;
    std::string tx;
    std::string mode;
    std::string port;
    std::string loss;  // severity of the alarm "loss of signal", 0 where there is light
    std::string attenuation;
    std::string commanded;  // attenuation that was asked for last
    // By port mode, where the attenuation stands at which a dark channel is parked.
    std::map<std::string, std::string> idle_attenuation;
};

inline constexpr unsigned highest_channel = 48;

// The tree of a card with one WSS port. A card of two ports addresses its
// channels by port and channel, and is another function that gives these paths.
std::vector<channel_paths> one_port_channels();

}  // namespace tmctl
