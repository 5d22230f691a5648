// What a regulator knows of one channel.
#pragma once

#include "shared_field.hpp"

#include <string>
#include <vector>

// Survives from one cycle of the regulation to the next; nothing of it is kept
// over a restart. The plain fields belong to the poll thread, the shared ones
// are read or written by the server's threads too.
//
// Powers are in dBm, offsets, differences and attenuations in dB.
struct channel_record {
    // "power" regulates, "off" blocks, anything else leaves the channel alone.
    shared_value<std::string> opticalControlMode{"power"};
    shared_value<std::string> port_mode;              // as last set; the WSS knows the live one
    shared_number<float> default_attenuation{15.0F};  // when idle, on a card with two loops
    shared_number<float> wanted_power;                // the target

    bool active = false;                       // counts against the channel budget
    shared_number<bool> rxLossOfSignal{true};  // no peak in the last step
    int loss_counter = 15;                     // full on any sign of light
    long long lossTurnOffTimestamp = -1;       // s since the epoch when there last was light,
                                               // -1 once the loss has been acted on
    int giveup_counter = 10;                   // counts corrections down that hit an end
    shared_number<float> rxRawPower{-25.0F};   // last reading of the monitor
    shared_number<float> rxPower{-25.0F};      // last average, calibrated where there is a peak
    std::vector<float> power_history;          // last raw readings, oldest first, at most 5
    shared_number<float> rx_offset;            // added to the reported power at the client
    shared_number<float> tx_offset;            // added to the reported transmit power
    shared_number<float> rxPowerDeviation;     // rxPower - wanted_power, last seen with a peak
    shared_number<int> channelId;              // the monitor's own id, for display only
    shared_number<float> rxWaveLength;         // for the tilt
    float rxPowerMax = -25.0F;                 // extremes of rxPower while regulating
    float rxPowerMin = 25.0F;
    int extra_credit = 0;                          // fine-tuning steps left, 0 to 7
    shared_number<float> rxWssAttenuation{15.0F};  // as last commanded
    float last_wss_diff = 0.0F;                    // half of it widens what is sent to the WSS
    float last_correction = 0.0F;                  // of the last fine-tuning step
    shared_number<float> rxPowerDiffAvg;
};
