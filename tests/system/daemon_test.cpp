// The daemon as a process, before and while its device handlers are there.
#include "daemon_fixture.hpp"
#include "eventually.hpp"
#include "redis_server.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <memory>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using test::eventually;
using test::exited_with;
using testing::HasSubstr;

namespace {

const std::string options_text =
    "Available options:\n"
    "  --help                                Print help message\n"
    "  -i [ --interface_name ] arg (=eth_sfp_2)\n"
    "                                        name of the osc ethernet interface \n"
    "                                        (default value: eth_sfp_2)\n"
    "  -p [ --port ] arg (=5100)             listening socket port number (default \n"
    "                                        value: 5100)\n"
    "\n";

}  // namespace

class Daemon : public test::daemon_fixture {};

TEST_F(Daemon, HelpPrintsTheOptionsAndCountsAsAFailure) {
    start({"--help"});
    EXPECT_EQ(process_->end(), exited_with(1));
    EXPECT_EQ(process_->standard_output(), options_text);
    EXPECT_EQ(process_->standard_error(), "");
}

TEST_F(Daemon, BadCommandLinesPrintTheOptionsAndNotWhatIsWrong) {
    const std::vector<std::vector<std::string>> command_lines{
        {"--colour"}, {"--port", "many"}, {"--port", "65536"}, {"--port", "-1"}};
    for (const auto& arguments : command_lines) {
        start(arguments);
        EXPECT_EQ(process_->end(), exited_with(1)) << arguments.back();
        EXPECT_EQ(process_->standard_output(), options_text) << arguments.back();
        EXPECT_EQ(process_->standard_error(), "") << arguments.back();
    }
}

TEST_F(Daemon, ServesItsOwnStateWhileTheHandlersAreAbsent) {
    test::put_board("velt,k47");
    start();
    const auto management = management_client();
    EXPECT_FALSE(management->get<bool>("data/configStatus"));
    EXPECT_EQ(management->get<unsigned>("data/mutexStatus"), 0U);
    EXPECT_TRUE(
        eventually_logs("6 tm_velt_monitoring msg: Traffic manager monitoring config "
                        "status, wait up to 90 seconds. [traffic_manager_velt:"));
}

TEST_F(Daemon, GetsReadyWithoutTheBoosterOnceNinetySecondsAreOver) {
    become_ready_k47();
    booster_->set("data/configStatus", false);
    start({}, "60");
    EXPECT_TRUE(eventually_logs(
        "3 tm_velt_monitoring msg: Traffic manager is not ready within 90 seconds. ["));
    EXPECT_TRUE(
        eventually_logs("6 tm_velt_init msg: Traffic manager initialized for VELT "
                        "listening on port 5100. ["));
    // Whether or not this machine has them.
    EXPECT_TRUE(eventually_logs("on interface eth_sfp_2, port 5100"));
    EXPECT_TRUE(eventually_logs("on interface eth0, port 5100"));
    const auto management = management_client();
    EXPECT_TRUE(eventually([&] { return management->get<bool>("data/configStatus"); }));
}

TEST_F(Daemon, GetsReadyAtOnceWhenItsHandlersAre) {
    become_ready_t47();
    start({"--port", "5200"}, "10");
    EXPECT_TRUE(
        eventually_logs("msg: Traffic manager initialized for VELT listening on port 5200."));
    EXPECT_FALSE(process_->has_logged("is not ready within"));
    const auto management = management_client();
    EXPECT_TRUE(eventually([&] { return management->get<bool>("data/configStatus"); }));
    EXPECT_EQ(management->get<unsigned>("control/data/maxChannels"), 40U);
    EXPECT_EQ(management->get<float>("control/data/edfa/defaultAttenuation"), 15.1F);
    EXPECT_EQ(management->get<float>("control/data/express/defaultAttenuation"), 15.1F);
}

TEST_F(Daemon, StartsItsModulesInThisOrder) {
    become_ready_t47();
    start();
    ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    EXPECT_THAT(texts_of_channel("6 tm_velt_startup"),
                testing::ElementsAre(
                    "msg: Starting PPM.", "msg: Starting Interface.", "msg: Starting Booster.",
                    "msg: Starting WSS-EDGE.", "msg: Starting OSC.", "msg: Starting controlloop.",
                    "msg: Starting Cloopl", "msg: Updating using config parameters."));
}

TEST_F(Daemon, AmplifierCardNeedsNoWssEdgeAndHasNoControlLoop) {
    become_ready_k47();
    start();
    EXPECT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    EXPECT_FALSE(process_->has_logged("is not ready within"));
    EXPECT_THAT(texts_of_channel("6 tm_velt_startup"),
                testing::ElementsAre("msg: Starting PPM.", "msg: Starting Interface.",
                                     "msg: Starting Booster.", "msg: Starting WSS-EDGE.",
                                     "msg: Starting OSC.", "msg: Starting Cloopl"));
}

TEST_F(Daemon, WaitsForTheWssEdgeOfACardThatHasOne) {
    become_ready_t47();
    wss_->set("data/configStatus", false);
    start({}, "60");
    EXPECT_TRUE(eventually_logs("msg: Traffic manager is not ready within 90 seconds."));
}

TEST_F(Daemon, WaitsForBothSupervisoryChannels) {
    become_ready_k47();
    oscs_[1].reset();
    start({}, "60");
    EXPECT_TRUE(eventually_logs("msg: Traffic manager is not ready within 90 seconds."));
    EXPECT_TRUE(eventually_logs("msg: Traffic manager initialized"));
}

TEST_F(Daemon, GetsReadyWhenALateHandlerDoes) {
    become_ready_t47();
    booster_->set("data/configStatus", false);
    start();
    ASSERT_TRUE(eventually_logs("msg: Traffic manager monitoring config status"));
    booster_->set("data/configStatus", true);
    EXPECT_TRUE(eventually_logs("msg: Traffic manager startup elapsed time: "));
    EXPECT_FALSE(process_->has_logged("is not ready within"));
}

TEST_F(Daemon, ReadOfTheMutexStatusWaitsUntilAllModulesStand) {
    become_ready_t47();
    // Shared with the handler's thread, which may be the last to use them.
    const auto reached = std::make_shared<std::promise<void>>();
    std::promise<void> released;
    const auto holds = std::make_shared<std::atomic<bool>>(true);
    // The last thing that the modules' start does is to ask the WSS edge.
    wss_->on_request(
        [reached, holds, release = released.get_future().share()](const std::string& request) {
            if (request.find("/port") == std::string::npos || !holds->exchange(false))
                return;
            reached->set_value();
            release.wait();
        });
    start();
    ASSERT_EQ(reached->get_future().wait_for(30s), std::future_status::ready);
    auto status = std::async(std::launch::async,
                             [] { return management_client()->get<unsigned>("data/mutexStatus"); });
    const auto management = management_client();
    for (int read = 0; read < 20; ++read)
        EXPECT_FALSE(management->get<bool>("data/configStatus"));
    EXPECT_EQ(status.wait_for(0s), std::future_status::timeout);
    EXPECT_FALSE(process_->has_logged("msg: Traffic manager monitoring config status"));
    released.set_value();
    EXPECT_EQ(status.get(), 0U);
}

TEST_F(Daemon, TerminationSignalDuringTheStartEndsItAtOnce) {
    test::put_board("velt,k47");
    start();
    ASSERT_TRUE(eventually_logs("msg: Traffic manager monitoring config status"));
    process_->signal(SIGTERM);
    EXPECT_EQ(process_->end(), exited_with(0));  // long before the start would be over
}

TEST_F(Daemon, TerminationSignalEndsTheServiceSilently) {
    become_ready_t47();
    start();
    ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    process_->signal(SIGTERM);
    EXPECT_EQ(process_->end(), exited_with(0));
    EXPECT_FALSE(process_->has_logged("msg: Control loop main destroyed."));
}

TEST_F(Daemon, SecondOneOnTheSameSocketEndsAndSaysWhy) {
    test::put_board("velt,k47");
    start();
    const auto management = management_client();
    EXPECT_FALSE(management->get<bool>("data/configStatus"));
    test::process second(daemon_program, {}, surroundings(), test::root());
    EXPECT_EQ(second.end(), test::ended_by_signal(SIGABRT));
    EXPECT_THAT(second.standard_error(), HasSubstr("3 tm_velt_init msg: "));
    EXPECT_THAT(second.standard_error(), HasSubstr("/tmp/device_managers/traffic_manager"));
    EXPECT_FALSE(management->get<bool>("data/configStatus"));
}

TEST_F(Daemon, SettingThatCannotBeAppliedAtTheStartEndsTheProcessAndIsNamed) {
    become_ready_t47();
    wss_->fail_requests(-5, "stuck");
    start({}, "50");
    EXPECT_EQ(process_->end(), test::ended_by_signal(SIGABRT));
    EXPECT_THAT(process_->standard_error(), HasSubstr("dh_client_exception -5: stuck ["));
}

TEST_F(Daemon, StartStateThatCannotBeReadEndsTheProcessAndIsNamed) {
    become_ready_t47();
    test::scripted_handler system_start("/tmp/device_handlers/system_start");
    start({}, "20");
    ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    management_client()->set<void>("control/config/dhReady", true);
    EXPECT_EQ(process_->end(), test::ended_by_signal(SIGABRT));
    EXPECT_THAT(process_->standard_error(),
                HasSubstr("dh_client_exception -2: No such path: data/systemColdstart ["));
}

TEST_F(Daemon, ShowsAtTheFrontPanelThatItRunsAndWhatTheBoosterDoes) {
    become_ready_k47();
    start({}, "20");
    const auto shows = [this](const std::string& led, const std::string& colour) {
        return led_velt_->json_of("config/" + led + "/status") == '"' + colour + '"';
    };
    EXPECT_TRUE(eventually([&] { return shows("powerLed", "green"); }));
    EXPECT_TRUE(eventually([&] { return shows("statusLed", "green"); }));
    EXPECT_TRUE(eventually([&] { return shows("edfaLed/txLed", "off"); }));
    EXPECT_TRUE(eventually([&] { return shows("edfaLed/rxLed", "off"); }));
    booster_->set("data/enable", true);
    booster_->set("data/rx/losPin", false);
    for (const char* led : {"edfaLed/txLed", "edfaLed/rxLed", "ocmLed/txLed"})
        EXPECT_TRUE(eventually([&] { return shows(led, "green"); })) << led;
}

TEST_F(Daemon, WaitsForALateLedHandler) {
    led_velt_.reset();
    become_ready_k47();
    start();
    ASSERT_TRUE(eventually_logs("msg: Starting Cloopl"));
    led_velt_.emplace("/tmp/device_handlers/led_velt");
    EXPECT_TRUE(eventually([this] { return led_velt_->requests().size() >= 2; }));
    EXPECT_EQ(led_velt_->requests()[0], R"(write config/powerLed/status="green")");
    EXPECT_EQ(led_velt_->requests()[1], R"(write config/statusLed/status="green")");
    EXPECT_FALSE(process_->has_ended());
}

TEST_F(Daemon, LedHandlerThatStaysAwayEndsTheProcessAndIsNamed) {
    led_velt_.reset();
    become_ready_k47();
    start();
    EXPECT_EQ(process_->end(), test::ended_by_signal(SIGABRT));
    EXPECT_THAT(process_->standard_error(), HasSubstr("dh_client_exception 107: not connected ["));
}

TEST_F(Daemon, ReplacesTheSocketOfOneThatWasKilled) {
    test::put_board("velt,k47");
    start();
    EXPECT_FALSE(management_client()->get<bool>("data/configStatus"));
    process_->signal(SIGKILL);
    EXPECT_EQ(process_->end(), test::ended_by_signal(SIGKILL));
    start();
    EXPECT_FALSE(management_client()->get<bool>("data/configStatus"));
}

// From the cold start to a cycle that has come around.
TEST_F(Daemon, RegulatesOnceTheManagementIsReady) {
    become_ready_t47();
    booster_->set("data/enable", true);
    test::scripted_handler system_start("/tmp/device_handlers/system_start");
    system_start.set("data/systemColdstart", true);
    start({}, "50");
    ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
    EXPECT_FALSE(host::exists("/tmp/control_warmstart.lock"));
    management_client()->set<void>("control/config/dhReady", true);
    ASSERT_TRUE(
        eventually_logs("6 tm_velt_cloop msg: Entering periodic control loop. [control_loop:"));
    EXPECT_TRUE(host::exists("/tmp/control_warmstart.lock"));
    wss_->forget_requests();
    EXPECT_TRUE(eventually([this] {
        for (const std::string& request : wss_->requests()) {
            if (request.starts_with("read data/ocm/1/channel/48/"))
                return true;
        }
        return false;
    }));
    EXPECT_FALSE(process_->has_ended());
}

TEST_F(Daemon, AsksTheStoreOverEitherKindOfSocket) {
    test::redis_server store;
    store.set("/v1/rows/system/settings/config/hostname", "card-17");
    become_ready_k47();
    for (const std::string& address :
         {"unix:" + test::root() + "/var/run/redis/redis.sock", store.tcp_address()}) {
        auto around = surroundings("20");
        around["VELT_REDIS"] = address;
        process_.reset();
        process_.emplace(daemon_program, std::vector<std::string>{}, around, test::root());
        ASSERT_TRUE(eventually_logs("msg: Traffic manager initialized"));
        const auto management = management_client();
        EXPECT_TRUE(test::eventually([&] {
            return management->get<std::string>("interface/line/1/data/hostname", "") == "card-17";
        })) << address;
    }
}
