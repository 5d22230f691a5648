#include "control_loop.hpp"

#include "eventually.hpp"
#include "gated_time.hpp"
#include "log_capture.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using test::eventually;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char marker[] = "/tmp/control_warmstart.lock";
const std::string waiting_text =
    "msg: Waiting for local configuration parameters to be read. starting up control_loop...";
const std::string configured_text =
    "msg: Corvelle has now configured everything (status ok) now we can start power regulation.";
const std::string periodic_text = "msg: Entering periodic control loop.";

std::vector<unsigned> all_channels() {
    std::vector<unsigned> channels;
    for (unsigned channel = 1; channel <= control_loop_main::channel_count; ++channel)
        channels.push_back(channel);
    return channels;
}

std::vector<unsigned> first_48(std::vector<unsigned> channels) {
    channels.resize(std::min<std::size_t>(channels.size(), 48));
    return channels;
}

}  // namespace

// The poll thread of a card whose handlers do as they are told.
class ControlLoop : public testing::Test {
  protected:
    ControlLoop() {
        test::empty_root();
        test::put_board("velt,t47");
        wss_.emplace("/tmp/device_handlers/wss_edge");
        booster_.emplace("/tmp/device_handlers/booster");
        system_start_.emplace("/tmp/device_handlers/system_start");
        system_info_.emplace("/tmp/device_handlers/system_info");
        system_info_->set("data/locationIndex", "1");
        wss_->set("data/configStatus", true);
        booster_->set("data/enable", false);
        system_start_->set("data/systemColdstart", false);
    }

    ~ControlLoop() override { destroy_loop(); }

    void create_loop() {
        proxy_ = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
        loop_ = control_loop_main::create(proxy_, nullptr, client("wss_edge"), client("booster"));
        loop_->set_maxChannels_nosave(0, 40);
    }

    // From the release of the poll thread until its first cycle, with the
    // program's time running freely.
    void run_to_first_cycle() {
        loop_->set_configDone(true);
        time_.open();
        ASSERT_TRUE(eventually([this] { return log_.count(periodic_text) == 1; }));
    }

    // The same, with the time standing still when the first cycle begins.
    void run_to_stop_in_first_cycle() {
        ASSERT_TRUE(time_.comes_to_rest());  // in the wait for the configuration
        loop_->set_configDone(true);
        time_.let_pass(2s);
        ASSERT_TRUE(time_.comes_to_rest());  // in the wait for the WSS edge
        time_.let_pass(10s);
        ASSERT_TRUE(eventually([this] { return log_.count(periodic_text) == 1; }));
    }

    void destroy_loop() {
        time_.open();
        loop_.reset();
    }

    static std::shared_ptr<device_handler_client> client(const std::string& name) {
        return device_handler_client::create("/tmp/device_handlers/" + name, name, {});
    }

    // What the channels were asked or told, in order, of requests that begin so
    // and go on with the number of the channel and the ending.
    static std::vector<unsigned> channels_of(const test::scripted_handler& handler,
                                             const std::string& beginning,
                                             const std::string& ending = "") {
        std::vector<unsigned> channels;
        for (const std::string& request : handler.requests()) {
            if (!request.starts_with(beginning))
                continue;
            std::size_t digits = 0;
            const auto channel =
                static_cast<unsigned>(std::stoul(request.substr(beginning.size()), &digits));
            if (request.substr(beginning.size() + digits).starts_with(ending))
                channels.push_back(channel);
        }
        return channels;
    }

    std::vector<unsigned> parked_channels() const {
        return channels_of(*wss_, "write config/wss/channel/", "/attenuation=");
    }

    std::vector<unsigned> learned_channels() const {
        return channels_of(*wss_, "read data/wss/channel/", "/attenuation");
    }

    // Channels that the loop with this monitor has looked at, each once a turn.
    std::vector<unsigned> regulated_channels(int monitor = 1) const {
        std::vector<unsigned> channels =
            channels_of(*wss_, "read data/ocm/" + std::to_string(monitor) + "/channel/");
        channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
        return channels;
    }

    std::size_t reads_of(const test::scripted_handler& handler, const std::string& path) const {
        const auto requests = handler.requests();
        return static_cast<std::size_t>(
            std::count(requests.begin(), requests.end(), "read " + path));
    }

    std::vector<std::chrono::nanoseconds> sleeps_of(std::chrono::nanoseconds span) const {
        auto sleeps = time_.sleeps();
        std::erase_if(sleeps, [&](auto sleep) { return sleep != span; });
        return sleeps;
    }

    test::gated_time time_;
    test::log_capture log_{msg_log::progress};
    std::optional<test::scripted_handler> wss_;
    std::optional<test::scripted_handler> booster_;
    std::optional<test::scripted_handler> system_start_;
    std::optional<test::scripted_handler> system_info_;
    dh_db db_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_;
    std::shared_ptr<control_loop_main> loop_;
};

TEST_F(ControlLoop, WaitsForTheConfigurationAndSaysSoEveryTwoSeconds) {
    create_loop();
    for (std::size_t waits = 1; waits <= 4; ++waits) {
        ASSERT_TRUE(time_.comes_to_rest());
        EXPECT_EQ(log_.count(waiting_text), waits);
        time_.let_pass(2s);
    }
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_THAT(time_.sleeps(), ElementsAre(2s, 2s, 2s, 2s));
    EXPECT_THAT(wss_->requests(), IsEmpty());
    EXPECT_THAT(system_start_->requests(), IsEmpty());
    EXPECT_FALSE(host::exists(marker));
}

TEST_F(ControlLoop, CanBeDestroyedWhileItWaitsForTheConfiguration) {
    create_loop();
    ASSERT_TRUE(time_.comes_to_rest());
    destroy_loop();
    EXPECT_EQ(log_.count("msg: Control loop main destroyed."), 1U);
    EXPECT_EQ(log_.count(configured_text), 0U);
    EXPECT_FALSE(host::exists(marker));
}

TEST_F(ControlLoop, SystemInformationClientIsKnownToTheSupervision) {
    create_loop();
    ASSERT_EQ(proxy_->clients.size(), 1U);
    EXPECT_EQ(proxy_->clients[0]->name(), "system info");
}

TEST_F(ControlLoop, ColdStartParksEachChannelAndThenLearnsItsAttenuation) {
    system_start_->set("data/systemColdstart", true);
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(parked_channels(), all_channels());
    EXPECT_EQ(learned_channels(), all_channels());
    const auto requests = wss_->requests();
    const auto position = [&](const std::string& beginning) {
        return std::find_if(requests.begin(), requests.end(), [&](const std::string& request) {
            return request.starts_with(beginning);
        });
    };
    EXPECT_LT(position("write config/wss/channel/1/attenuation"),
              position("read data/wss/channel/1/attenuation"));
    EXPECT_LT(position("read data/wss/channel/1/attenuation"),
              position("write config/wss/channel/2/attenuation"));
}

TEST_F(ControlLoop, AllChannelsAreTakenOverWhateverTheChannelBudget) {
    create_loop();
    loop_->set_maxChannels_nosave(0, 3);
    run_to_first_cycle();
    EXPECT_EQ(learned_channels(), all_channels());
}

TEST_F(ControlLoop, WarmStartLeavesTheLightAsItIs) {
    create_loop();
    run_to_first_cycle();
    EXPECT_THAT(parked_channels(), IsEmpty());
    EXPECT_EQ(learned_channels(), all_channels());
}

TEST_F(ControlLoop, MarkerMakesTheStartWarmThoughTheCardStartedCold) {
    system_start_->set("data/systemColdstart", true);
    test::put_file(marker, "");
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(log_.count("msg: Found a WARMSTART File, this means system has warmstarted."), 1U);
    EXPECT_THAT(parked_channels(), IsEmpty());
    EXPECT_EQ(learned_channels(), all_channels());
    EXPECT_EQ(reads_of(*system_start_, "data/systemColdstart"), 1U);
}

TEST_F(ControlLoop, MarkerIsCreatedOnceAllChannelsAreTakenOver) {
    system_start_->set("data/systemColdstart", true);
    bool was_there_before_the_last_channel = true;
    wss_->on_request([&](const std::string& request) {
        if (request.starts_with("read data/wss/channel/48/attenuation"))
            was_there_before_the_last_channel = host::exists(marker);
    });
    create_loop();
    run_to_first_cycle();
    EXPECT_FALSE(was_there_before_the_last_channel);
    EXPECT_TRUE(host::exists(marker));
    EXPECT_EQ(log_.count("msg: Created a WARMSTART File, next time line control loop starts, it "
                         "will be warmstarted."),
              1U);
}

TEST_F(ControlLoop, SecondStartOnTheSameCardIsWarm) {
    system_start_->set("data/systemColdstart", true);
    create_loop();
    run_to_first_cycle();
    destroy_loop();
    wss_->forget_requests();
    log_.clear();
    create_loop();
    run_to_first_cycle();
    EXPECT_THAT(parked_channels(), IsEmpty());
}

TEST_F(ControlLoop, MarkerThatCannotBeCreatedIsLoggedAndRegulationStarts) {
    std::filesystem::create_symlink(test::root() + "/missing/marker", test::root() + marker);
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(log_.count("msg: Failed to create a WARMSTART temp file, ret = 256"), 1U);
}

TEST_F(ControlLoop, ReadyWssEdgeCostsOneReadAndOnePause) {
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(reads_of(*wss_, "data/configStatus"), 1U);
    EXPECT_EQ(sleeps_of(10s).size(), 1U);
}

TEST_F(ControlLoop, WssEdgeThatNeverGetsReadyCostsThirtyReadsOfTenSeconds) {
    wss_->set("data/configStatus", false);
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(reads_of(*wss_, "data/configStatus"), 30U);
    EXPECT_EQ(sleeps_of(10s).size(), 30U);
    EXPECT_EQ(learned_channels(), all_channels());
}

TEST_F(ControlLoop, WssEdgeWithoutThePathIsNotReady) {
    wss_->remove("data/configStatus");
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(sleeps_of(10s).size(), 30U);
    EXPECT_THAT(log_.texts(msg_log::failure),
                testing::Not(testing::Contains(testing::HasSubstr("Unable to contact"))));
}

TEST_F(ControlLoop, WssEdgeThatFailsCostsThirtyAttemptsWithoutAPause) {
    wss_->fail_requests(-5, "stuck");
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(log_.count("msg: Unable to contact WSS_EDGE, stuck"), 30U);
    EXPECT_THAT(sleeps_of(10s), IsEmpty());
}

TEST_F(ControlLoop, ChannelsThatCannotBeTakenOverAreLoggedOneByOne) {
    wss_->fail_requests(-5, "stuck");
    create_loop();
    run_to_first_cycle();
    std::vector<std::string> expected;
    for (const unsigned channel : all_channels())
        expected.push_back("msg: Running update last WSS failed, channel-ix" +
                           std::to_string(channel) + ", exception: stuck");
    auto texts = log_.texts(msg_log::progress);
    std::erase_if(texts, [](const std::string& text) {
        return !text.starts_with("msg: Running update last WSS failed");
    });
    EXPECT_EQ(texts, expected);
    EXPECT_TRUE(host::exists(marker));
}

TEST_F(ControlLoop, ChannelThatCannotBeParkedIsNotLearnedAndTheNextOneFollows) {
    system_start_->set("data/systemColdstart", true);
    wss_->fail_writes("config/wss/channel/7/attenuation", -5, "stuck");
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(parked_channels(), all_channels());
    auto expected = all_channels();
    expected.erase(expected.begin() + 6);
    EXPECT_EQ(learned_channels(), expected);
    EXPECT_EQ(log_.count("msg: Running update last WSS failed, channel-ix7, exception: stuck"), 1U);
}

TEST_F(ControlLoop, CycleRegulatesAllChannelsInOrderAndPausesTwoSeconds) {
    booster_->set("data/enable", true);
    create_loop();
    run_to_stop_in_first_cycle();
    for (int cycle = 0; cycle < 3; ++cycle) {
        ASSERT_TRUE(time_.comes_to_rest());
        EXPECT_EQ(regulated_channels(), all_channels());
        EXPECT_EQ(reads_of(*booster_, "data/enable"), 1U);
        wss_->forget_requests();
        booster_->forget_requests();
        time_.let_pass(2s);
    }
}

TEST_F(ControlLoop, DisabledBoosterSkipsTheLoopWithoutAPause) {
    create_loop();
    run_to_stop_in_first_cycle();
    const std::size_t sleeps = time_.sleeps().size();
    wss_->forget_requests();
    booster_->forget_requests();
    ASSERT_TRUE(eventually([this] { return reads_of(*booster_, "data/enable") >= 5; }));
    EXPECT_THAT(wss_->requests(), IsEmpty());
    EXPECT_EQ(time_.sleeps().size(), sleeps);
    booster_->set("data/enable", true);
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_EQ(regulated_channels(), all_channels());
}

TEST_F(ControlLoop, BoosterWithoutThePathCountsAsDisabled) {
    booster_->remove("data/enable");
    create_loop();
    run_to_stop_in_first_cycle();
    ASSERT_TRUE(eventually([this] { return reads_of(*booster_, "data/enable") >= 2; }));
    EXPECT_THAT(regulated_channels(), IsEmpty());
}

TEST_F(ControlLoop, ChannelsThatFailAddTwoSecondsEachAndTheCycleGoesOn) {
    booster_->set("data/enable", true);
    create_loop();
    run_to_stop_in_first_cycle();
    ASSERT_TRUE(time_.comes_to_rest());
    wss_->fail_requests(-5, "stuck");
    const std::size_t sleeps_before = time_.sleeps().size();
    time_.let_pass(2s + 48 * 2s);
    ASSERT_TRUE(time_.comes_to_rest());  // in the pause after the 48 failures
    EXPECT_EQ(time_.sleeps().size(), sleeps_before + 49);
    EXPECT_EQ(sleeps_of(2s).size(), sleeps_before + 49 - sleeps_of(10s).size());
    for (const unsigned channel : all_channels()) {
        EXPECT_EQ(log_.count("msg: channel-ix" + std::to_string(channel) +
                             ", running regulate exception: stuck"),
                  1U);
    }
    wss_->fail_requests(0);
    wss_->forget_requests();
    time_.let_pass(2s);
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_EQ(regulated_channels(), all_channels());
}

TEST_F(ControlLoop, DestructionLetsTheRunningCycleFinish) {
    booster_->set("data/enable", true);
    create_loop();
    run_to_stop_in_first_cycle();
    ASSERT_TRUE(time_.comes_to_rest());
    std::promise<void> reached;
    std::promise<void> released;
    wss_->forget_requests();
    bool asked = false;
    wss_->on_request([&](const std::string& request) {
        if (asked || !request.starts_with("read data/ocm/1/channel/3/"))
            return;
        asked = true;
        reached.set_value();
        released.get_future().wait();
    });
    time_.open();
    reached.get_future().wait();
    auto destroyed = std::async(std::launch::async, [this] { loop_.reset(); });
    ASSERT_TRUE(
        eventually([this] { return log_.count("msg: Control loop main destroyed.") == 1; }));
    EXPECT_EQ(destroyed.wait_for(0s), std::future_status::timeout);
    released.set_value();
    destroyed.get();
    EXPECT_EQ(regulated_channels(), all_channels());
}

// A card with two loops.
class ControlLoopOfTwo : public ControlLoop {
  protected:
    ControlLoopOfTwo() { test::put_board("velt,mx47"); }

    void create_loop() {
        ControlLoop::create_loop();
        loop_->set_maxChannels_nosave(1, 48);
    }
};

TEST_F(ControlLoopOfTwo, RegulatesTheLoopsOneAfterTheOtherEachWithItsPause) {
    booster_->set("data/enable", true);
    create_loop();
    run_to_stop_in_first_cycle();
    EXPECT_EQ(log_.count("msg: MX47. Activate 2 control loops."), 1U);
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_EQ(regulated_channels(1), all_channels());
    EXPECT_THAT(regulated_channels(2), IsEmpty());
    wss_->forget_requests();
    time_.let_pass(2s);
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_THAT(regulated_channels(1), IsEmpty());
    EXPECT_EQ(regulated_channels(2), all_channels());
}

TEST_F(ControlLoopOfTwo, ColdStartTakesOverBothLoops) {
    system_start_->set("data/systemColdstart", true);
    create_loop();
    run_to_first_cycle();
    for (const char* port : {"1", "2"}) {
        const std::string wss = std::string("/wss/") + port + "/channel/";
        EXPECT_EQ(first_48(channels_of(*wss_, "write config" + wss, "/attenuation=")),
                  all_channels());
        EXPECT_EQ(first_48(channels_of(*wss_, "read data" + wss, "/attenuation")), all_channels());
    }
}

TEST_F(ControlLoopOfTwo, DisabledBoosterSkipsTheFirstLoopOnly) {
    create_loop();
    run_to_stop_in_first_cycle();
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_THAT(regulated_channels(1), IsEmpty());
    EXPECT_EQ(regulated_channels(2), all_channels());
}

TEST_F(ControlLoopOfTwo, CombinedModeWithADisabledNeighbourSkipsTheSecondLoopOnly) {
    booster_->set("data/enable", true);
    create_loop();
    loop_->set_mx47_k47_combo_flag_nosave("enabled");
    run_to_stop_in_first_cycle();
    for (int cycle = 0; cycle < 2; ++cycle) {
        ASSERT_TRUE(time_.comes_to_rest());
        EXPECT_EQ(regulated_channels(1), all_channels());
        EXPECT_THAT(regulated_channels(2), IsEmpty());
        wss_->forget_requests();
        time_.let_pass(2s);
    }
}

TEST_F(ControlLoopOfTwo, CombinedModeEndsWithAnyOtherText) {
    create_loop();
    loop_->set_mx47_k47_combo_flag_nosave("enabled");
    loop_->set_mx47_k47_combo_flag_nosave("");
    run_to_stop_in_first_cycle();
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_EQ(regulated_channels(2), all_channels());
}

TEST_F(ControlLoop, EnableFileMakesAnyCardOneOfTwoLoops) {
    test::put_file("/var/persistent/etc/enable_veltmx47", "");
    create_loop();
    run_to_stop_in_first_cycle();
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_EQ(log_.count("msg: MX47. Activate 2 control loops."), 1U);
    EXPECT_EQ(regulated_channels(2), all_channels());
}

TEST_F(ControlLoop, SingleLoopCardSaysNothingOfTwoLoops) {
    create_loop();
    run_to_first_cycle();
    EXPECT_EQ(log_.count("msg: MX47. Activate 2 control loops."), 0U);
}
