// The card simulator as a process: what its command line takes, and its end.
#include "device_handler_client.hpp"
#include "process.hpp"
#include "raw_client.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

using test::eventually;
using test::exited_with;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const std::string program = VELT_BIN_DIR "/card_simulator";

class CardSimulatorProcess : public testing::Test {
  protected:
    CardSimulatorProcess() { test::empty_root(); }

    void start(const std::vector<std::string>& arguments, test::process::environment changes = {}) {
        changes.emplace("VELT_ROOT", test::root());
        process_.emplace(program, arguments, changes, test::root());
    }

    void expect_refusal(const std::vector<std::string>& arguments, const std::string& why) {
        start(arguments);
        EXPECT_EQ(process_->end(), exited_with(2));
        EXPECT_EQ(process_->standard_error(), "card_simulator: " + why + "\n");
    }

    void expect_refusal_of_scenario(const std::string& text, const std::string& why) {
        test::put_file("/scenario.json", text);
        const std::string file = test::root() + "/scenario.json";
        expect_refusal({"--card", "t47", "--scenario", file}, "scenario " + file + ": " + why);
    }

    bool is_served() const { return process_->has_logged("msg: Card t47 is served"); }

    std::optional<test::process> process_;
};

}  // namespace

TEST_F(CardSimulatorProcess, EndsOnEitherSignalWithStatusZeroAndWithoutItsSockets) {
    for (const int signal : {SIGTERM, SIGINT}) {
        start({"--card", "t47"});
        ASSERT_TRUE(eventually([&] { return is_served(); }));
        EXPECT_TRUE(test::has_sockets("/tmp/device_handlers"));
        process_->signal(signal);
        EXPECT_EQ(process_->end(), exited_with(0));
        EXPECT_FALSE(test::has_sockets("/tmp/device_handlers"));
    }
}

TEST_F(CardSimulatorProcess, EndsOnASignalWhileAHandlerIsFrozen) {
    start({"--card", "t47"});
    ASSERT_TRUE(eventually([&] { return is_served(); }));
    const auto hand = device_handler_client::create("/tmp/device_handlers/sim", "sim", {});
    hand->set<void>("sim/handler/booster/frozen", true);
    test::raw_client client(test::root() + "/tmp/device_handlers/booster");
    client.send_line(R"({"jsonrpc":"2.0","id":1,"method":"version","params":{}})");
    process_->signal(SIGTERM);
    EXPECT_EQ(process_->end(), exited_with(0));
    EXPECT_TRUE(client.is_closed_by_peer());
    EXPECT_FALSE(test::has_sockets("/tmp/device_handlers"));
}

TEST_F(CardSimulatorProcess, RootOnTheCommandLineGoesBeforeTheEnvironment) {
    start({"--card", "t47", "--root", test::root() + "/other"});
    ASSERT_TRUE(eventually([&] { return is_served(); }));
    EXPECT_TRUE(std::filesystem::is_socket(test::root() + "/other/tmp/device_handlers/wss_edge"));
    EXPECT_FALSE(std::filesystem::exists(test::root() + "/tmp/device_handlers"));
}

TEST_F(CardSimulatorProcess, ScenarioRunsInTheProgramsTime) {
    test::put_file("/scenario.json", R"({"actions":[{"time":3600,"action":"cut_fibre"}]})");
    start({"--card", "t47", "--scenario", test::root() + "/scenario.json"},
          {{"VELT_TIME_SCALE", "3600"}});
    const auto client = device_handler_client::create("/tmp/device_handlers/sim", "sim", {});
    EXPECT_TRUE(eventually([&] { return !client->get<bool>("sim/fibreIntact", true); }));
    EXPECT_TRUE(process_->has_logged("scenario msg: Scenario: cut_fibre"));
}

TEST_F(CardSimulatorProcess, ScenarioStopsAndStartsAHandlerInTheProgramsTime) {
    test::put_file("/scenario.json", R"({"actions":[
        {"time":3600,"action":"stop_handler","handler":"booster"},
        {"time":7200,"action":"start_handler","handler":"booster"}]})");
    start({"--card", "t47", "--scenario", test::root() + "/scenario.json"},
          {{"VELT_TIME_SCALE", "3600"}});
    const std::string socket = test::root() + "/tmp/device_handlers/booster";
    EXPECT_TRUE(eventually(
        [&] { return process_->has_logged("scenario msg: Scenario: start_handler booster"); }));
    EXPECT_TRUE(eventually([&] { return std::filesystem::is_socket(socket); }));
    EXPECT_TRUE(process_->has_logged("scenario msg: Scenario: stop_handler booster"));
}

TEST_F(CardSimulatorProcess, SocketThatIsServedAlreadyIsAnErrorOfItsOwn) {
    start({"--card", "t47"});
    ASSERT_TRUE(eventually([&] { return is_served(); }));
    test::process second(program, {"--card", "t47"}, {{"VELT_ROOT", test::root()}}, test::root());
    EXPECT_EQ(second.end(), exited_with(1));
    EXPECT_THAT(second.standard_error(), StartsWith("card_simulator: "));
    EXPECT_FALSE(process_->has_ended());
}

TEST_F(CardSimulatorProcess, HelpNamesTheOptions) {
    start({"--help"});
    EXPECT_EQ(process_->end(), exited_with(0));
    for (const char* option : {"--card", "--scenario", "--root", "--seed", "--ipv6", "--fed-by"})
        EXPECT_THAT(process_->standard_output(), HasSubstr(option));
}

TEST_F(CardSimulatorProcess, CardsThatAreNotSimulatedAreRefused) {
    expect_refusal({}, "--card is missing");
    expect_refusal({"--card", "t48"}, "there is no card t48; t47, mx47 and k47 are simulated");
    expect_refusal({"--card", "t47", "--fed-by", "/tmp"}, "--fed-by is for card k47");
}

TEST_F(CardSimulatorProcess, BadScenarioIsRefusedByName) {
    expect_refusal_of_scenario(R"({"actions":[{"time":-1,"action":"cut_fibre"}]})",
                               "actions[0]: \"time\" is -1, outside 0 to 1000000000");
    expect_refusal_of_scenario(R"({"actions":[{"time":1,"action":"explode"}]})",
                               "actions[0]: there is no action \"explode\"");
    expect_refusal_of_scenario(
        R"({"actions":[{"time":1,"action":"stop_handler","handler":"sim"}]})",
        "actions[0]: there is no handler \"sim\"; there are: system_start, system_info, "
        "wss_edge, booster, osc1, osc2, ppm/0, ppm/1, sfp/0, sfp/1, led_velt");
    expect_refusal({"--card", "t47", "--scenario", "/no/such/file"},
                   "scenario /no/such/file: cannot be read");
}

TEST_F(CardSimulatorProcess, BadOptionsAreRefused) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"--card", "t47", "--seed", "x"},
          {"--card"},
          {"--velocity", "3"},
          {"--card", "t47", "more"}}) {
        start(arguments);
        EXPECT_EQ(process_->end(), exited_with(2)) << testing::PrintToString(arguments);
    }
}
