// Combined mode of an MX47 card with a K47 card in the neighbour slot: daemon
// and cards as processes, each card on its end of the link between the slots.
// Finding the neighbour takes the daemon some 12 seconds, whatever its time scale.
#include "daemon_fixture.hpp"
#include "network_namespace.hpp"
#include "redis_server.hpp"
#include "tree_access.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <ostream>
#include <regex>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using test::eventually;
using test::network_namespace;

namespace {

// A discovery or two on a busy machine.
constexpr auto discovery = 60s;

constexpr unsigned channels = 48;
constexpr const char* k47_root = "/k47";

const std::string reconnects = "msg: No neighbour modules. Attempting reconnect.";

// What the card tells of its neighbour.
struct situation {
    std::string status;
    unsigned alarm;
    bool is_alive;
    bool has_same_version;

    friend bool operator==(const situation&, const situation&) = default;
    friend std::ostream& operator<<(std::ostream& out, const situation& shown) {
        return out << shown.status << ", alarm " << shown.alarm << ", alive " << shown.is_alive
                   << ", same version " << shown.has_same_version;
    }
};

}  // namespace

class NeighbourSlot : public test::daemon_fixture {
  protected:
    NeighbourSlot() {
        log_level_ = "7";
        led_velt_.reset();  // the simulated card has one
    }

    void SetUp() override {
        if (!card_.exists() || !neighbour_.exists())
            GTEST_SKIP() << "no network namespaces here: " << card_.why_not();
        card_.run("ip link add eth_module type veth peer name eth_card netns " +
                  neighbour_.holder());
        card_.bring_up("lo");
        card_.bring_up("eth_module");
        neighbour_.bring_up("eth_card");
        put_in_slot("VLT-Q-K47");
        mx47_.emplace(simulator_program, std::vector<std::string>{"--card", "mx47"},
                      simulated_surroundings(), test::root());
        ASSERT_TRUE(eventually([this] { return mx47_->has_logged("msg: Card mx47 is served"); }));
        hands_ = client_of("/tmp/device_handlers/sim");
        hands_->set<void>("sim/eq/booster/connected", true);
    }

    test::process::environment simulated_surroundings() const {
        return {{"VELT_ROOT", test::root()}, {"VELT_TIME_SCALE", time_scale_}};
    }

    void put_in_slot(const std::string& product) {
        store_.set("/v1/rows/slot/2/present", "true");
        store_.set("/v1/rows/module/2/system/info/inventory/productName", product);
    }

    void start_k47(const std::vector<std::string>& options = {}) {
        std::vector<std::string> arguments{"--card",   "k47",    "--ipv6",
                                           "eth_card", "--root", test::root() + k47_root,
                                           "--fed-by", ""};
        arguments.insert(arguments.end(), options.begin(), options.end());
        k47_.emplace(network_namespace::entering_program,
                     neighbour_.entering(simulator_program, arguments), simulated_surroundings(),
                     test::root());
        ASSERT_TRUE(eventually([this] { return k47_->has_logged("msg: Card k47 is served"); }));
        k47_hands_ = client_of(std::string(k47_root) + "/tmp/device_handlers/sim");
        k47_booster_ = client_of(std::string(k47_root) + "/tmp/device_handlers/booster");
    }

    // As far as the first turn of regulation.
    void start_daemon() {
        process_.emplace(network_namespace::entering_program, card_.entering(daemon_program, {}),
                         surroundings(time_scale_), test::root());
        management_ = management_client();
        ASSERT_TRUE(
            eventually([this] { return management_->get<bool>("data/configStatus", false); }));
        management_->set<void>("control/config/dhReady", true);
        ASSERT_TRUE(eventually(
            [] { return std::filesystem::exists(test::root() + "/tmp/control_warmstart.lock"); },
            discovery));
    }

    // Switching off may take as long as a discovery.
    void configure(const std::string& setting, const std::string& json_text) {
        ASSERT_EQ(test::write_json(*management_, "control/config/" + setting, json_text, discovery),
                  "{}");
    }
    void switch_mode(const std::string& mode) { configure("combinedMode", '"' + mode + '"'); }

    static std::shared_ptr<device_handler_client> client_of(const std::string& socket) {
        return device_handler_client::create(socket, "test", {});
    }

    // All of one moment.
    situation now() {
        static const std::vector<std::string> paths{
            "control/data/combinedModeStatus", "control/alarms/combinedModeAlarm/severity",
            "control/data/slotCommunicationAlive", "control/data/correctNeighbourVersion"};
        const auto entries = test::values_under(*management_, paths);
        const auto entry = [&](std::size_t index) {
            json::document parsed;
            parsed.Parse(entries.at(paths[index]).c_str());
            return parsed;
        };
        return {entry(0)["value"].GetString(), entry(1)["value"].GetUint(),
                entry(2)["value"].GetBool(), entry(3)["value"].GetBool()};
    }

    bool comes_to(const situation& expected, std::chrono::seconds bound = discovery) {
        return eventually([&] { return now() == expected; }, bound);
    }

    std::size_t times_logged(const std::string& text) const { return process_->times_logged(text); }

    // Whatever the regulation does, the booster has the gain that it was told.
    void keep_light_below_power_limit() {
        hands_->set<void>("sim/eq/booster/powerLimit", 30.0);
        for (unsigned channel = 5; channel <= channels; ++channel)
            hands_->set<void>("sim/eq/channel/" + std::to_string(channel) + "/lit", false);
    }

    float shown(const std::string& path) { return management_->get<float>("control/data/" + path); }

    static inline const std::string simulator_program = VELT_BIN_DIR "/card_simulator";

    std::string time_scale_ = "4";
    network_namespace card_;
    network_namespace neighbour_;
    test::redis_server store_;
    std::optional<test::process> mx47_;
    std::optional<test::process> k47_;
    std::shared_ptr<device_handler_client> hands_;
    std::shared_ptr<device_handler_client> k47_hands_;
    std::shared_ptr<device_handler_client> k47_booster_;
    std::shared_ptr<device_handler_client> management_;
};

TEST_F(NeighbourSlot, NeighbourIsReadSwitchedOffAndMissedWhenItDies) {
    keep_light_below_power_limit();
    start_k47();
    // The EQ port is regulated only while the neighbour's booster is on: so what
    // is read of it stays as it is read.
    k47_booster_->set<void>("config/enable", false);
    start_daemon();
    switch_mode("enabled");
    ASSERT_TRUE(comes_to({"ok", 0, true, true})) << now();
    for (const char* line :
         {"7 tm_velt_cloop msg: No neighbour modules. Attempting reconnect. [control_loop:",
          "7 tm_velt_cloop msg: Connected to neighbour Booster. IP: fe80::",
          "7 tm_velt_cloop Connected to neighbour system_info. IP: fe80::",
          "7 tm_velt_cloop msg: Getting K47 boosterTx parameter for MX47. [control_loop:"})
        EXPECT_EQ(times_logged(line), 1U) << line;
    EXPECT_FLOAT_EQ(shown("eq/calMonToBoosterTxK47"), k47_booster_->get<float>("data/boosterTx"));
    EXPECT_TRUE(eventually_logs("mx47 k47 combined, booster is disabled on k47, "));
    k47_booster_->set<void>("config/enable", true);
    EXPECT_TRUE(eventually([this] { return shown("eq/K47ActualGain") == 5.0F; }));
    EXPECT_TRUE(eventually([this] {
        const float gap = shown("eq/K47EdfaTxPower") - k47_booster_->get<float>("data/txPower");
        return std::abs(gap) < 0.5F;
    }));

    // Off, and on again with the connections that are there.
    switch_mode("disabled");
    EXPECT_EQ(now(), (situation{"n/a", 0, true, true}));
    switch_mode("enabled");
    ASSERT_TRUE(comes_to({"ok", 0, true, true}));
    EXPECT_EQ(times_logged(reconnects), 1U);

    // Dies between two polls.
    k47_.reset();
    ASSERT_TRUE(comes_to({"ok", 0, false, true})) << now();
    put_in_slot("VLT-Q-T47");
    ASSERT_TRUE(comes_to({"alarm", 1, false, false})) << now();
}

TEST_F(NeighbourSlot, ValuesAreTakenOverTogetherOrNotAtAll) {
    keep_light_below_power_limit();
    start_k47();
    start_daemon();
    switch_mode("enabled");
    ASSERT_TRUE(comes_to({"ok", 0, true, true})) << now();
    k47_hands_->set<void>("sim/handler/booster/errorPath", std::string("data/powerLimit"));
    k47_booster_->set<void>("config/gain", 6.0F);
    ASSERT_TRUE(comes_to({"ok", 0, false, true})) << now();
    EXPECT_FLOAT_EQ(shown("eq/K47ActualGain"), 5.0F);
    EXPECT_TRUE(process_->has_logged(
        "msg: Exception in getting traffic manager module attributes. simulated fault"));
    ASSERT_TRUE(comes_to({"connecting", 0, false, true})) << now();
    k47_hands_->set<void>("sim/handler/booster/errorPath", std::string());
    ASSERT_TRUE(comes_to({"ok", 0, true, true})) << now();
    EXPECT_FLOAT_EQ(shown("eq/K47ActualGain"), 6.0F);
}

TEST_F(NeighbourSlot, OtherSoftwareIsRefusedOnceAndUsedFromThenOn) {
    keep_light_below_power_limit();
    test::put_file("/scenario.json", R"({"actions":[
        {"time":0,"action":"install_software","version":"2.0.0"}]})");
    start_k47({"--scenario", test::root() + "/scenario.json"});
    ASSERT_TRUE(eventually(
        [this] { return k47_hands_->get<std::string>("sim/softwareVersion") == "2.0.0"; }));
    start_daemon();
    switch_mode("enabled");
    ASSERT_TRUE(comes_to({"connecting", 0, false, false})) << now();
    EXPECT_TRUE(process_->has_logged("msg: Neighbour software version: 2.0.0"));
    EXPECT_TRUE(process_->has_logged("msg: Local software version: 1.0.0"));
    EXPECT_FALSE(process_->has_logged("msg: Getting K47 boosterTx parameter for MX47."));
    ASSERT_TRUE(comes_to({"ok", 0, true, false})) << now();
    EXPECT_EQ(times_logged(reconnects), 1U);

    // The last one of the reads fails: the poll had begun well.
    k47_booster_->set<void>("config/gain", 6.0F);
    k47_hands_->set<void>("sim/handler/booster/errorPath", std::string("data/enable"));
    ASSERT_TRUE(comes_to({"ok", 0, false, false})) << now();
    EXPECT_FLOAT_EQ(shown("eq/K47ActualGain"), 6.0F);
}

TEST_F(NeighbourSlot, NeighbourThatAcceptsOnePortOnlyIsSoughtAgain) {
    start_k47();
    k47_hands_->set<void>("sim/handler/system_info/running", false);
    start_daemon();
    switch_mode("enabled");
    ASSERT_TRUE(comes_to({"connecting", 0, false, false})) << now();
    EXPECT_TRUE(process_->has_logged("msg: Connected to neighbour Booster. IP: fe80::"));
    EXPECT_TRUE(process_->has_logged("msg: Exception in module poll: "));
    EXPECT_FALSE(process_->has_logged("Connected to neighbour system_info."));
    k47_hands_->set<void>("sim/handler/system_info/running", true);
    ASSERT_TRUE(comes_to({"ok", 0, true, true})) << now();
    EXPECT_GE(times_logged("msg: Connected to neighbour Booster. IP: fe80::"), 2U);
}

TEST_F(NeighbourSlot, TwoNeighboursOnTheLinkAreNone) {
    neighbour_.run("ip link add link eth_card name eth_second type macvlan mode bridge");
    neighbour_.bring_up("eth_second");
    start_k47();
    start_daemon();
    configure("port/1/verbose", "true");
    switch_mode("enabled");
    ASSERT_TRUE(eventually([this] { return times_logged("Traffic module not connected.") > 0; },
                           discovery));
    EXPECT_EQ(now(), (situation{"connecting", 0, false, false}));
    EXPECT_TRUE(process_->has_logged("6 tm_velt_cloop msg: No neighbour modules. Attempting"));
    EXPECT_TRUE(process_->has_logged("3 tm_velt_cloop msg: Exception in module poll: "));
    EXPECT_FALSE(process_->has_logged("Connected to neighbour"));
    EXPECT_TRUE(std::regex_search(
        process_->standard_error(),
        std::regex("6 tm_velt_cloop msg: Slot neighbour IP: ->fe80::[^<\n]+fe80::[^<\n]+<-")));
}

TEST_F(NeighbourSlot, LinkWithoutANeighbourIsAnAlarmUnlessTheSlotHoldsAnAmplifierCard) {
    neighbour_.run("ip link set eth_card down");
    start_daemon();
    switch_mode("enabled");
    ASSERT_TRUE(
        eventually([this] { return times_logged("msg: No slot neighbour.") > 0; }, discovery));
    EXPECT_EQ(now(), (situation{"connecting", 0, false, true}));
    put_in_slot("VLT-Q-T47");
    ASSERT_TRUE(comes_to({"alarm", 1, false, true})) << now();
    put_in_slot("VLT-Q-K47");
    ASSERT_TRUE(comes_to({"connecting", 0, false, true})) << now();
    store_.set("/v1/rows/slot/2/present", "false");
    ASSERT_TRUE(comes_to({"alarm", 1, false, true})) << now();
}

TEST_F(NeighbourSlot, SwitchingOffWaitsForTheEndOfTheRunningPoll) {
    start_daemon();  // nobody listens in the other slot
    switch_mode("enabled");
    ASSERT_TRUE(eventually([this] { return now().status == "connecting"; }));
    EXPECT_EQ(times_logged("msg: Exception in module poll: "), 0U);
    switch_mode("disabled");
    EXPECT_EQ(times_logged("msg: Exception in module poll: "), 1U);
    EXPECT_EQ(now(), (situation{"n/a", 0, false, false}));
    EXPECT_GE(times_logged("msg: Waiting for module poll to finish."), 2U);
}

class CombinedRegulation : public NeighbourSlot {
  protected:
    CombinedRegulation() {
        log_level_ = "4";
        time_scale_ = "10";
    }

    // The largest distance of a channel's true power behind the neighbour's
    // booster from its wanted one.
    double largest_deviation() {
        double largest = 0.0;
        for (unsigned channel = 1; channel <= channels; ++channel) {
            const std::string of_channel = "channel/" + std::to_string(channel);
            if (!hands_->get<bool>("sim/eq/" + of_channel + "/lit"))
                continue;
            const double power = hands_->get<float>("sim/eq/" + of_channel + "/outputPower");
            const double wanted = shown("port/2/" + of_channel + "/wantedPower");
            largest = std::max(largest, std::abs(power - wanted));
        }
        return largest;
    }

    double switched_attenuation(unsigned channel) {
        return wss_edge_->get<double>("data/wss/2/channel/" + std::to_string(channel) +
                                      "/attenuation");
    }

    std::shared_ptr<device_handler_client> wss_edge_ = client_of("/tmp/device_handlers/wss_edge");

    static constexpr double band = 0.7;            // dB, within which a channel is left alone
    static constexpr double monitor_error = 0.35;  // dB, ripple and meters
};

TEST_F(CombinedRegulation, BringsEachChannelToItsPowerBehindTheNeighboursBooster) {
    start_k47();
    start_daemon();
    switch_mode("enabled");
    ASSERT_TRUE(comes_to({"ok", 0, true, true})) << now();
    // The channels share the power of the combined mode from now on.
    configure("port/2/maxChannels", std::to_string(channels));
    ASSERT_TRUE(
        eventually([this] { return largest_deviation() < band + monitor_error; }, discovery))
        << largest_deviation();

    // A step of one channel, and of the amplifier that all of them share.
    const double attenuation = switched_attenuation(7);
    const double of_another = switched_attenuation(8);
    hands_->set<void>("sim/eq/channel/7/launchPower",
                      hands_->get<float>("sim/eq/channel/7/launchPower") - 5.0F);
    k47_booster_->set<void>("config/gain", 7.0F);
    EXPECT_TRUE(eventually(
        [&] {
            return switched_attenuation(7) < attenuation - 1.0 &&
                   switched_attenuation(8) > of_another + 0.5 &&
                   largest_deviation() < band + monitor_error;
        },
        discovery))
        << largest_deviation() << ", " << attenuation << " -> " << switched_attenuation(7) << ", "
        << of_another << " -> " << switched_attenuation(8);
    // The amplifier gives its whole gain once the power behind it is not too much.
    EXPECT_TRUE(eventually([this] { return shown("eq/K47ActualGain") == 7.0F; }));
    EXPECT_TRUE(comes_to({"ok", 0, true, true})) << now();
}
