#include "channel_tree.hpp"

namespace tmctl {

std::vector<channel_paths> one_port_channels() {
    std::vector<channel_paths> channels;
    for (unsigned channel = 1; channel <= highest_channel; ++channel) {
        const std::string data = "control/data/" + std::to_string(channel);
        // The clients of the alarms are numbered one above the channels.
        const std::string client = "alarms/client/" + std::to_string(channel + 1);
        const std::string wss = "wss/channel/" + std::to_string(channel) + "/attenuation";
        channels.push_back(
            {.channel = channel,
             .wanted = data + "/wantedPower",
             .rx = data + "/rxPower",
             .tx = data + "/txPower",
             .mode = data + "/opticalControlMode",
             .port = data + "/portMode",
             .loss = client + "/rx/lossOfSignal/severity",
             .detected = "",
             .attenuation = "data/" + wss,
             .commanded = "config/" + wss,
             .idle_attenuation = {{"edfa", "control/data/edfa/defaultAttenuation"},
                                  {"express", "control/data/express/defaultAttenuation"}}});
    }
    return channels;
}

std::vector<channel_paths> two_port_channels(unsigned port) {
    std::vector<channel_paths> channels;
    for (unsigned channel = 1; channel <= highest_channel; ++channel) {
        const std::string place =
            std::to_string(port) + "/channel/" + std::to_string(channel) + "/";
        const std::string data = "control/data/port/" + place;
        const std::string wss = "wss/" + place + "attenuation";
        channels.push_back({.channel = channel,
                            .wanted = data + "wantedPower",
                            .rx = data + "rxPower",
                            .tx = data + "txPower",
                            .mode = data + "opticalControlMode",
                            .port = data + "portMode",
                            .loss = "",
                            .detected = "data/ocm/" + place + "detected",
                            .attenuation = "data/" + wss,
                            .commanded = "config/" + wss,
                            .idle_attenuation = {{"on", data + "defaultAttenuation"}}});
    }
    return channels;
}

}  // namespace tmctl
