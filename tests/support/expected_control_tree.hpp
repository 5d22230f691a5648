// The control trees of both cards, path by path, as management clients know them.
#pragma once

#include "json.hpp"

#include <map>
#include <ostream>
#include <string>

namespace test {

inline const std::string text_type =
    "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";

// What the description of a node tells: its kind, its type and its limits.
struct node_description {
    std::string kind;
    std::string type;
    std::string immediate_limit = {};
    std::string delayed_limit = {};

    friend bool operator==(const node_description&, const node_description&) = default;
};

inline void PrintTo(const node_description& node, std::ostream* out) {
    *out << node.kind << " of " << node.type << " " << node.immediate_limit << " "
         << node.delayed_limit;
}

using tree_description = std::map<std::string, node_description>;

inline node_description volatile_of(const std::string& type) {
    return {"volatile value", type};
}

inline node_description setting_of(const std::string& type) {
    return {"config param", type};
}

inline node_description filtered_of(const std::string& type) {
    return {"polled volatile value", type};
}

inline node_description measured_power() {
    return {"polled volatile value", "float", "0.09", "0.05"};
}

inline tree_description expected_t47_tree() {
    tree_description tree{
        {"control/config/dhReady", setting_of("bool")},
        {"control/config/edfa/defaultAttenuation", setting_of("float")},
        {"control/config/express/defaultAttenuation", setting_of("float")},
        {"control/config/lossTimeout", setting_of("long long")},
        {"control/config/maxChannels", setting_of("unsigned int")},
        {"control/config/verbose", setting_of("bool")},
        {"control/data/boosterTx", volatile_of("float")},
        {"control/data/boosterTxAdjustment", volatile_of("float")},
        {"control/data/boosterTxAdjustmentDiff", volatile_of("float")},
        {"control/data/boosterTx_Original", volatile_of("float")},
        {"control/data/debug/configDone", volatile_of("bool")},
        {"control/data/edfa/calCloopWssIL", volatile_of("float")},
        {"control/data/edfa/defaultAttenuation", volatile_of("float")},
        {"control/data/express/calCloopWssIL", volatile_of("float")},
        {"control/data/express/defaultAttenuation", volatile_of("float")},
        {"control/data/lossTimeout", volatile_of("long long")},
        {"control/data/maxChannels", volatile_of("unsigned int")},
        {"control/data/numberOfActiveChannels", volatile_of("unsigned int")},
        {"control/data/verbose", volatile_of("bool")},
        {"control/data/wantedPowerMax", volatile_of("float")},
        {"control/data/wantedPowerMin", volatile_of("float")},
    };
    for (int channel = 1; channel <= 48; ++channel) {
        const std::string number = std::to_string(channel);
        tree["control/data/" + number + "/wantedPower"] = filtered_of("float");
        tree["control/data/" + number + "/opticalControlMode"] = filtered_of(text_type);
        tree["control/data/" + number + "/rxPower"] = measured_power();
        tree["control/data/" + number + "/txPower"] = measured_power();
        tree["control/data/" + number + "/portMode"] = filtered_of(text_type);
        tree["control/config/" + number + "/wantedPower"] = setting_of("float");
        tree["control/config/" + number + "/opticalControlMode"] = setting_of(text_type);
        tree["control/config/" + number + "/portMode"] = setting_of(text_type);
    }
    return tree;
}

inline tree_description expected_mx47_tree() {
    tree_description tree{
        {"control/alarms/combinedModeAlarm/severity", {"status value", "unsigned int"}},
        {"control/config/combinedMode", setting_of(text_type)},
        {"control/config/dhReady", setting_of("bool")},
        {"control/config/edfa/defaultAttenuation", setting_of("float")},
        {"control/config/eq/K47ActualGain", setting_of("float")},
        {"control/config/eq/K47EdfaTxPower", setting_of("float")},
        {"control/config/eq/calMonToBoosterTxK47", setting_of("float")},
        {"control/config/eq/defaultAttenuation", setting_of("float")},
        {"control/config/eq/ocmPowerOffset", setting_of("float")},
        {"control/data/combinedMode", volatile_of(text_type)},
        {"control/data/combinedModeStatus", volatile_of(text_type)},
        {"control/data/correctNeighbourVersion", volatile_of("bool")},
        {"control/data/debug/configDone", volatile_of("bool")},
        {"control/data/edfa/calCloopWssIL", volatile_of("float")},
        {"control/data/edfa/defaultAttenuation", volatile_of("float")},
        {"control/data/eq/K47ActualGain", volatile_of("float")},
        {"control/data/eq/K47EdfaTxPower", volatile_of("float")},
        {"control/data/eq/calCloopWssIL", volatile_of("float")},
        {"control/data/eq/calMonToBoosterTxK47", volatile_of("float")},
        {"control/data/eq/defaultAttenuation", volatile_of("float")},
        {"control/data/eq/ocmPowerOffset", volatile_of("float")},
        {"control/data/slotCommunicationAlive", volatile_of("bool")},
    };
    for (const char* port : {"1", "2"}) {
        const std::string data = std::string("control/data/port/") + port;
        const std::string config = std::string("control/config/port/") + port;
        tree[data + "/verbose"] = volatile_of("bool");
        tree[data + "/wantedPowerMax"] = volatile_of("float");
        tree[data + "/wantedPowerMin"] = volatile_of("float");
        tree[data + "/maxChannels"] = volatile_of("unsigned int");
        tree[data + "/numberOfActiveChannels"] = volatile_of("unsigned int");
        tree[data + "/boosterTxAdjustment"] = volatile_of("float");
        tree[data + "/boosterTxAdjustmentDiff"] = volatile_of("float");
        tree[data + "/boosterTx"] = volatile_of("float");
        tree[data + "/boosterTx_Original"] = volatile_of("float");
        tree[data + "/lossTimeout"] = volatile_of("long long");
        tree[config + "/verbose"] = setting_of("bool");
        tree[config + "/maxChannels"] = setting_of("unsigned int");
        tree[config + "/lossTimeout"] = setting_of("long long");
        for (int channel = 1; channel <= 48; ++channel) {
            const std::string of_data = data + "/channel/" + std::to_string(channel);
            const std::string of_config = config + "/channel/" + std::to_string(channel);
            tree[of_data + "/wantedPower"] = filtered_of("float");
            tree[of_data + "/opticalControlMode"] = filtered_of(text_type);
            tree[of_data + "/rxPower"] = measured_power();
            tree[of_data + "/ocmRxPower"] = measured_power();
            tree[of_data + "/ocmTxPower"] = measured_power();
            tree[of_data + "/txPower"] = measured_power();
            tree[of_data + "/portMode"] = filtered_of(text_type);
            tree[of_data + "/defaultAttenuation"] = filtered_of("float");
            tree[of_config + "/wantedPower"] = setting_of("float");
            tree[of_config + "/opticalControlMode"] = setting_of(text_type);
            tree[of_config + "/portMode"] = setting_of(text_type);
            tree[of_config + "/defaultAttenuation"] = setting_of("float");
            tree[of_config + "/defaultAttenuationNoSave"] = setting_of("float");
        }
    }
    return tree;
}

inline std::string text_at(const json::value& object, const char* key) {
    const json::value* const member = json::find(object, key);
    return member != nullptr ? json::to<std::string>(*member) : "";
}

inline node_description description_of(const json::value& info) {
    node_description found{text_at(info, "type"), text_at(info, "valueType")};
    if (const json::value* const filter = json::find(info, "hysteresis")) {
        found.immediate_limit = text_at(*filter, "ImmediateLimit");
        found.delayed_limit = text_at(*filter, "delayedLimit");
    }
    return found;
}

}  // namespace test
