// The simulated card as its clients see it, over its sockets.

#include "card_fixture.hpp"
#include "eventually.hpp"
#include "raw_client.hpp"
#include "wire_fixture.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

namespace {

namespace fs = std::filesystem;

std::string content_of(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

class CardSimulator : public test::card_fixture {
  protected:
    const std::string root = test::root();
};

TEST_F(CardSimulator, LaysTheBoardsFiles) {
    EXPECT_EQ(content_of(root + "/proc/device-tree/compatible"), std::string("velt,t47\0", 9));
    EXPECT_EQ(content_of(root + "/mnt/board_info/calibration_data/cloop/cloop.conf"),
              "cal_clientrx_to_mon 13\n"
              "cal_cloop_wss_il_edfaport 5\n"
              "cal_cloop_wss_il_expressport 8\n"
              "cal_mon_to_boostertx 20.2\n");
}

TEST_F(CardSimulator, RootThatCannotBeWrittenIsAnError) {
    std::ofstream(root + "/file") << "in the way";
    EXPECT_THROW(serve({.root = root + "/file", .actions = {}}), std::exception);
}

TEST_F(CardSimulator, SecondCardUnderTheSameRootIsAnError) {
    EXPECT_THROW(serve({.root = root, .actions = {}}), std::exception);
}

TEST_F(CardSimulator, RemovesItsSocketsAtTheEnd) {
    for (const std::string handler :
         {"wss_edge", "booster", "osc1", "osc2", "ppm/0", "ppm/1", "sfp/0", "sfp/1", "led_velt",
          "system_info", "system_start", "sim"})
        EXPECT_TRUE(fs::is_socket(root + "/tmp/device_handlers/" + handler)) << handler;
    card.reset();
    EXPECT_FALSE(test::has_sockets("/tmp/device_handlers"));
}

TEST_F(CardSimulator, ServesWhatTheStartOfTheDaemonReads) {
    EXPECT_TRUE(client_of("wss_edge")->get<bool>("data/configStatus"));
    EXPECT_EQ(client_of("wss_edge")->get<std::string>("data/dhStatus"), "up");
    EXPECT_TRUE(client_of("booster")->get<bool>("data/configStatus"));
    EXPECT_TRUE(client_of("system_start")->get<bool>("data/systemColdstart"));
    EXPECT_NE(client_of("system_info")->get<std::string>("inventory/swVersion"), "");
    EXPECT_EQ(client_of("system_info")->get<std::string>("data/locationIndex"), "1");
}

TEST_F(CardSimulator, EveryChannelHasItsPaths) {
    const auto wss = client_of("wss_edge");
    for (const std::string channel : {"1", "48"}) {
        EXPECT_TRUE(wss->get<int>("data/ocm/1/channel/" + channel + "/id") > 0);
        EXPECT_LT(wss->get<float>("data/ocm/1/channel/" + channel + "/powerLevel"), -10.0f);
        EXPECT_EQ(wss->get<bool>("data/ocm/1/channel/" + channel + "/detected"), channel == "1");
        EXPECT_EQ(wss->get<std::string>("data/wss/channel/" + channel + "/port"), "edfa");
        EXPECT_EQ(wss->get<double>("data/wss/channel/" + channel + "/attenuation"), 15.0);
    }
    EXPECT_THROW(wss->get<int>("data/ocm/1/channel/0/id"), dh_client_exception);
    EXPECT_THROW(wss->get<int>("data/ocm/1/channel/49/id"), dh_client_exception);
}

TEST_F(CardSimulator, WrittenAttenuationMovesTheLight) {
    const auto wss = client_of("wss_edge");
    const auto sim = client_of("sim");
    const auto booster = client_of("booster");
    const float before = sim->get<float>("sim/channel/1/outputPower");
    const float total = booster->get<float>("data/txPower");
    wss->set<void>("config/wss/channel/1/attenuation", 5.0f);
    EXPECT_EQ(wss->get<double>("data/wss/channel/1/attenuation"), 5.0);
    EXPECT_NEAR(sim->get<float>("sim/channel/1/outputPower"), before + 10.0f, 0.1f);
    EXPECT_GT(booster->get<float>("data/txPower"), total);
}

TEST_F(CardSimulator, WrittenPortMovesTheLight) {
    const auto wss = client_of("wss_edge");
    wss->set<void>("config/wss/channel/1/port", std::string("off"));
    EXPECT_EQ(wss->get<std::string>("data/wss/channel/1/port"), "off");
    EXPECT_LT(client_of("sim")->get<float>("sim/channel/1/outputPower"), -20.0f);
}

TEST_F(CardSimulator, UnknownPortModeIsRefused) {
    const auto wss = client_of("wss_edge");
    EXPECT_THROW(wss->set<void>("config/wss/channel/1/port", std::string("on")),
                 dh_client_exception);
    EXPECT_EQ(wss->get<std::string>("data/wss/channel/1/port"), "edfa");
}

TEST_F(CardSimulator, MonitorAndBoosterAgreeByTheCalibration) {
    const float monitor = client_of("wss_edge")->get<float>("data/ocm/1/totalPower");
    EXPECT_NEAR(client_of("booster")->get<float>("data/txPower"), monitor + 20.2f, 0.3f);
}

TEST_F(CardSimulator, ReceiveMonitorShowsTheLightAtTheInput) {
    const auto wss = client_of("wss_edge");
    EXPECT_GT(wss->get<float>("data/ocm/2/totalPower"), -38.0f);
    client_of("sim")->set<void>("sim/fibreIntact", false);
    EXPECT_TRUE(
        test::eventually([&] { return wss->get<float>("data/ocm/2/totalPower") < -38.0f; }));
}

TEST_F(CardSimulator, LaneCompensationIsTakenAndShown) {
    const auto wss = client_of("wss_edge");
    EXPECT_FALSE(wss->get<bool>("data/laneCompensationMode"));
    wss->set<void>("config/laneCompensationMode", true);
    EXPECT_TRUE(wss->get<bool>("data/laneCompensationMode"));
}

TEST_F(CardSimulator, BoosterStateFollowsAWriteAtOnce) {
    const auto booster = client_of("booster");
    EXPECT_TRUE(booster->get<bool>("data/enable"));
    booster->set<void>("config/enable", false);
    EXPECT_FALSE(booster->get<bool>("data/enable"));
    EXPECT_LT(booster->get<float>("data/txPower"), -20.0f);
    EXPECT_LT(booster->get<float>("data/actualGain"), 0.0f);
    booster->set<void>("config/enable", true);
    EXPECT_TRUE(booster->get<bool>("data/enable"));
    EXPECT_EQ(booster->get<float>("data/actualGain"), 22.0f);
}

TEST_F(CardSimulator, BoosterFaultShowsInItsState) {
    const auto booster = client_of("booster");
    client_of("sim")->set<void>("sim/booster/fault", true);
    EXPECT_TRUE(test::eventually([&] { return !booster->get<bool>("data/enable"); }));
    EXPECT_TRUE(client_of("sim")->get<bool>("sim/booster/fault"));
}

TEST_F(CardSimulator, LostInputShowsAtTheBooster) {
    const auto booster = client_of("booster");
    EXPECT_FALSE(booster->get<bool>("data/rx/losPin"));
    EXPECT_GT(booster->get<float>("data/rxPower"), -20.0f);
    client_of("sim")->set<void>("sim/fibreIntact", false);
    EXPECT_TRUE(test::eventually([&] {
        return booster->get<bool>("data/rx/losPin") &&
               booster->get<float>("data/rxPower") == -60.0f;
    }));
}

TEST_F(CardSimulator, PowerLimitIsADouble) {
    client_of("sim")->set<void>("sim/booster/powerLimit", 10.5);
    EXPECT_EQ(client_of("booster")->get<double>("data/powerLimit"), 10.5);
}

TEST_F(CardSimulator, HandsReadBackWhatTheyTurned) {
    const auto sim = client_of("sim");
    sim->set<void>("sim/channel/1/launchPower", -1.5f);
    EXPECT_EQ(sim->get<float>("sim/channel/1/launchPower"), -1.5f);
    sim->set<void>("sim/channel/1/lit", false);
    EXPECT_FALSE(sim->get<bool>("sim/channel/1/lit"));
    sim->set<void>("sim/spanLoss", 6.5f);
    EXPECT_EQ(sim->get<float>("sim/spanLoss"), 6.5f);
    sim->set<void>("sim/booster/gain", 20.0f);
    EXPECT_EQ(sim->get<float>("sim/booster/gain"), 20.0f);
    sim->set<void>("sim/monitor/noise", 0.25f);
    EXPECT_EQ(sim->get<float>("sim/monitor/noise"), 0.25f);
    sim->set<void>("sim/systemColdstart", false);
    EXPECT_FALSE(client_of("system_start")->get<bool>("data/systemColdstart"));
}

TEST_F(CardSimulator, ServesWhatTheLineMonitorReads) {
    for (const std::string osc : {"osc1", "osc2"}) {
        const auto client = client_of(osc);
        EXPECT_TRUE(client->get<bool>("data/configStatus"));
        EXPECT_EQ(client->get<std::string>("data/linkStatus"), "up");
        EXPECT_EQ(client->get<std::string>("data/debug/state"), "ready");
        EXPECT_EQ(client->get<float>("data/fiberLength"), 20.0f);
        EXPECT_EQ(client->get<float>("data/fiberDispersion"), 340.0f);
        EXPECT_EQ(client->get<std::string>("data/neighbour"), "");
    }
}

TEST_F(CardSimulator, ChangedOscIsPublishedAtOnceAndOnlyThere) {
    test::raw_client subscriber(root + "/tmp/device_handlers/osc2");
    subscriber.send_line(
        R"({"jsonrpc":"2.0","method":"subscribe","params":{"paths":["data/linkStatus",)"
        R"("data/debug/state","data/fiberLength","data/fiberDispersion","data/neighbour"]}})");
    for (int initial = 0; initial < 5; ++initial)
        ASSERT_TRUE(subscriber.read_line());
    const auto change = [&](const std::string& name, const auto& value) {
        client_of("sim")->set<void>("sim/osc/2/" + name, value);
        return test::next_event(subscriber);
    };
    EXPECT_EQ(change("linkStatus", std::string("down")),
              R"({"event":"value","path":"data/linkStatus","value":"down"})");
    EXPECT_EQ(change("state", std::string("init")),
              R"({"event":"value","path":"data/debug/state","value":"init"})");
    EXPECT_EQ(change("length", 0.5f), R"({"event":"value","path":"data/fiberLength","value":0.5})");
    EXPECT_EQ(change("dispersion", -8.5f),
              R"({"event":"value","path":"data/fiberDispersion","value":-8.5})");
    EXPECT_EQ(change("neighbour", std::string("fe80::1%eth_sfp_2")),
              R"({"event":"value","path":"data/neighbour","value":"fe80::1%eth_sfp_2"})");
    EXPECT_EQ(client_of("osc1")->get<std::string>("data/linkStatus"), "up");
    EXPECT_EQ(client_of("sim")->get<float>("sim/osc/1/length"), 20.0f);
    EXPECT_EQ(client_of("sim")->get<std::string>("sim/osc/2/neighbour"), "fe80::1%eth_sfp_2");
}

TEST_F(CardSimulator, FibreThatDoesNotExistIsRefused) {
    const auto sim = client_of("sim");
    EXPECT_EQ(code_of_write(*sim, "sim/osc/1/length", -0.5), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/osc/1/length", 1000.5), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/osc/1/dispersion", 50000.5), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/osc/3/length", 1.0), -2);
}

// --- what is plugged in ---

// The next events of the paths, in their order, as "PATH VALUE".
class followed_handler {
  public:
    followed_handler(const std::string& socket, const std::vector<std::string>& paths)
        : client_(socket) {
        std::string list;
        for (const std::string& path : paths)
            list += (list.empty() ? "\"" : ",\"") + path + '"';
        client_.send_line(R"({"jsonrpc":"2.0","method":"subscribe","params":{"paths":[)" + list +
                          "]}}");
        for (std::size_t initial = 0; initial < paths.size(); ++initial)
            EXPECT_TRUE(client_.read_line());
    }
    std::string next() { return test::next_event(client_); }

  private:
    test::raw_client client_;
};

std::string event(const std::string& path, const std::string& value) {
    return R"({"event":"value","path":")" + path + R"(","value":)" + value + "}";
}

TEST_F(CardSimulator, ServesWhatIsReadOfAPassiveModule) {
    for (const std::string socket : {"ppm/0", "ppm/1"}) {
        const auto client = client_of(socket);
        EXPECT_TRUE(client->get<bool>("present"));
        EXPECT_EQ(client->get<unsigned>("inventory/wdmAddLoss"), 45U);
        EXPECT_EQ(client->get<unsigned>("inventory/wdmDropLoss"), 47U);
        EXPECT_EQ(client->get<unsigned>("inventory/oscAddLoss"), 12U);
        EXPECT_EQ(client->get<unsigned>("inventory/oscDropLoss"), 14U);
    }
}

TEST_F(CardSimulator, PassiveModuleThatIsPutInHasItsInventoryBeforeItIsTold) {
    const auto sim = client_of("sim");
    followed_handler upper(socket_of("ppm/0"),
                           {"present", "inventory/wdmAddLoss", "inventory/wdmDropLoss",
                            "inventory/oscAddLoss", "inventory/oscDropLoss"});
    sim->set<void>("sim/ppm/1/present", false);
    for (const std::string loss : {"wdmAddLoss", "wdmDropLoss", "oscAddLoss", "oscDropLoss"})
        EXPECT_EQ(upper.next(), event("inventory/" + loss, "0"));
    EXPECT_EQ(upper.next(), event("present", "false"));
    sim->set<void>("sim/ppm/1/wdmAddLoss", 60);
    EXPECT_EQ(sim->get<unsigned>("sim/ppm/1/wdmAddLoss"), 60U);
    sim->set<void>("sim/ppm/1/present", true);
    EXPECT_EQ(upper.next(), event("inventory/wdmAddLoss", "60"));
    EXPECT_EQ(upper.next(), event("inventory/wdmDropLoss", "47"));
    EXPECT_EQ(upper.next(), event("inventory/oscAddLoss", "12"));
    EXPECT_EQ(upper.next(), event("inventory/oscDropLoss", "14"));
    EXPECT_EQ(upper.next(), event("present", "true"));
    EXPECT_TRUE(client_of("ppm/1")->get<bool>("present"));
    EXPECT_EQ(client_of("ppm/1")->get<unsigned>("inventory/wdmAddLoss"), 45U);
}

TEST_F(CardSimulator, ServesWhatIsReadOfATransceiver) {
    for (const std::string socket : {"sfp/0", "sfp/1"}) {
        const auto client = client_of(socket);
        EXPECT_TRUE(client->get<bool>("present"));
        EXPECT_EQ(client->get<unsigned>("alarms/transceiverMissing/severity"), 0U);
        EXPECT_EQ(client->get<float>("data/rxPower"), -8.5f);
        EXPECT_EQ(client->get<float>("data/txPower"), 1.5f);
        EXPECT_TRUE(client->get<bool>("data/otdrSupport"));
        EXPECT_EQ(client->get<std::string>("inventory/productName"), "VLT-SFP-OTDR");
    }
}

TEST_F(CardSimulator, PulledTransceiverIsMissedAndHasNoPower) {
    const auto sim = client_of("sim");
    const auto port = client_of("sfp/1");
    sim->set<void>("sim/interface/2/present", false);
    EXPECT_FALSE(port->get<bool>("present"));
    EXPECT_EQ(port->get<unsigned>("alarms/transceiverMissing/severity"), 3U);
    EXPECT_EQ(port->get<float>("data/rxPower"), -99.0f);
    EXPECT_EQ(port->get<float>("data/txPower"), -99.0f);
    EXPECT_FALSE(port->get<bool>("data/otdrSupport"));
    EXPECT_EQ(port->get<std::string>("inventory/productName"), "");
    EXPECT_TRUE(client_of("sfp/0")->get<bool>("present"));

    sim->set<void>("sim/interface/2/otdrSupport", false);
    sim->set<void>("sim/interface/2/rxPower", -12.5f);
    sim->set<void>("sim/interface/2/txPower", 0.5f);
    EXPECT_EQ(port->get<float>("data/rxPower"), -99.0f);
    sim->set<void>("sim/interface/2/present", true);
    EXPECT_TRUE(port->get<bool>("present"));
    EXPECT_EQ(port->get<unsigned>("alarms/transceiverMissing/severity"), 0U);
    EXPECT_EQ(port->get<float>("data/rxPower"), -12.5f);
    EXPECT_EQ(port->get<float>("data/txPower"), 0.5f);
    EXPECT_FALSE(port->get<bool>("data/otdrSupport"));
    EXPECT_EQ(port->get<std::string>("inventory/productName"), "VLT-SFP");
}

TEST_F(CardSimulator, ModuleThatDoesNotExistIsRefused) {
    const auto sim = client_of("sim");
    EXPECT_EQ(code_of_write(*sim, "sim/ppm/3/present", true), -2);
    EXPECT_EQ(code_of_write(*sim, "sim/ppm/0/present", true), -2);
    EXPECT_EQ(code_of_write(*sim, "sim/interface/3/present", true), -2);
    EXPECT_EQ(code_of_write(*sim, "sim/ppm/1/present", 1.0), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/ppm/1/oscAddLoss", -1), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/interface/1/rxPower", 20.5f), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/interface/1/txPower", -60.5f), -22);
}

TEST_F(CardSimulator, ModuleIsPulledWhileItsHandlerIsAway) {
    const auto sim = client_of("sim");
    sim->set<void>("sim/handler/ppm/1/running", false);
    sim->set<void>("sim/ppm/2/present", false);
    sim->set<void>("sim/handler/ppm/1/running", true);
    EXPECT_FALSE(client_of("ppm/1")->get<bool>("present"));
    EXPECT_EQ(client_of("ppm/1")->get<unsigned>("inventory/oscDropLoss"), 0U);
}

// --- the front panel ---

TEST_F(CardSimulator, LedsAreOffUntilTheyAreSetAndKeepTheirColourOverARestart) {
    const auto leds = client_of("led_velt");
    const std::string status = "config/statusLed/status";
    EXPECT_EQ(leds->get<std::string>(status), "off");
    leds->set<void>(status, std::string("red"));
    EXPECT_EQ(leds->get<std::string>(status), "red");
    EXPECT_EQ(leds->get<std::string>("config/powerLed/status"), "off");
    EXPECT_TRUE(client_of("sim")->set<bool>("sim/handler/led_velt/restart", true));
    EXPECT_EQ(client_of("led_velt")->get<std::string>(status), "red");
}

TEST_F(CardSimulator, LedTakesItsColoursOnly) {
    const auto leds = client_of("led_velt");
    for (const std::string led :
         {"powerLed", "statusLed", "ocmLed/txLed", "ocmLed/rxLed", "edfaLed/txLed", "edfaLed/rxLed",
          "expressLed/txLed", "expressLed/rxLed"}) {
        const std::string path = "config/" + led + "/status";
        for (const std::string colour : {"green", "red", "yellow", "off"}) {
            leds->set<void>(path, colour);
            EXPECT_EQ(leds->get<std::string>(path), colour);
        }
        EXPECT_EQ(code_of_write(*leds, path, std::string("blue")), -22);
        EXPECT_EQ(code_of_write(*leds, path, true), -22);
        EXPECT_EQ(leds->get<std::string>(path), "off");
    }
    EXPECT_EQ(code_of_write(*leds, "config/fanLed/status", std::string("green")), -2);
}

TEST_F(CardSimulator, TimePasses) {
    const auto sim = client_of("sim");
    const double before = sim->get<double>("sim/time");
    EXPECT_TRUE(test::eventually([&] { return sim->get<double>("sim/time") > before; }));
}

TEST_F(CardSimulator, HandsAreRefusedWhatDoesNotExist) {
    const auto sim = client_of("sim");
    EXPECT_EQ(code_of_write(*sim, "sim/channel/1/launchPower", 20.5), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/channel/1/lit", 1.0), -22);
    EXPECT_EQ(code_of_write(*sim, "sim/channel/1/outputPower", 1.0), -95);
    EXPECT_EQ(code_of_write(*sim, "sim/channel/49/launchPower", 1.0), -2);
}

TEST_F(CardSimulator, ControlValueIsDescribedAsReadAndWritten) {
    json::document request;
    json::value paths(rapidjson::kArrayType);
    paths.PushBack("sim/spanLoss", request.GetAllocator());
    request.SetObject().AddMember("paths", paths, request.GetAllocator());
    const json::document answer = client_of("sim")->call("info", request);
    EXPECT_EQ(json::to_text(answer[0]["info"]), R"({"type":"control value","valueType":"float",)"
                                                R"("capabilities":{"read":true,"write":true}})");
    EXPECT_EQ(json::to<std::string>(answer[0]["text"]), "control value (read,write)");
}

TEST_F(CardSimulator, SeedAndScenarioReachTheLight) {
    const float seeded = client_of("sim")->get<float>("sim/channel/1/launchPower");
    card.reset();
    serve({root, 2, simulator::parse_scenario(R"({"actions":[{"time":0,"action":"cut_fibre"}]})")});
    EXPECT_NE(client_of("sim")->get<float>("sim/channel/1/launchPower"), seeded);
    EXPECT_FALSE(client_of("sim")->get<bool>("sim/fibreIntact"));
}

}  // namespace
