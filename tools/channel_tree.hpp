// Where a card's tree publishes its channels.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace tmctl {

// The paths of one channel. The attenuations and what the monitor detects are
// in the tree of the WSS handler, all others in the traffic manager's.
struct channel_paths {
    unsigned channel;
    std::string wanted;
    std::string rx;
    std::string tx;
    std::string mode;
    std::string port;
    // Whether there is light, by one of these; the other is empty.
    std::string loss;      // severity of the alarm "loss of signal", 0 where there is
    std::string detected;  // the monitor's own word
    std::string attenuation;
    std::string commanded;  // attenuation that was asked for last
    // By port mode, where the attenuation stands at which a dark channel is parked.
    std::map<std::string, std::string> idle_attenuation;
};

inline constexpr unsigned highest_channel = 48;

// The tree of a card with one WSS port.
std::vector<channel_paths> one_port_channels();

// Those of one port, 1 or 2, of a card with two. It has one alarm a channel for
// both of them, so the monitor of the port tells of light.
std::vector<channel_paths> two_port_channels(unsigned port);

}  // namespace tmctl
