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
         {"wss_edge", "booster", "osc1", "osc2", "system_info", "system_start", "sim"})
        EXPECT_TRUE(fs::is_socket(root + "/tmp/device_handlers/" + handler)) << handler;
    card.reset();
    EXPECT_TRUE(fs::is_empty(root + "/tmp/device_handlers"));
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
