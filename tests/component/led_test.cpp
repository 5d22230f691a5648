// The front panel: what a pass reads and writes, and in what order, on each
// variant of the card.
#include "led.hpp"

#include "client_recorders.hpp"
#include "eventually.hpp"
#include "gated_time.hpp"
#include "log_capture.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using test::eventually;
using testing::ElementsAre;
using testing::IsEmpty;
using strings = std::vector<std::string>;
using lines = std::vector<test::log_line>;

const std::string edfa_tx = "config/edfaLed/txLed/status";
const std::string edfa_rx = "config/edfaLed/rxLed/status";
const std::string ocm_tx = "config/ocmLed/txLed/status";
const std::string ocm_rx = "config/ocmLed/rxLed/status";
const std::string express_tx = "config/expressLed/txLed/status";
const std::string express_rx = "config/expressLed/rxLed/status";

const std::string total_power = "data/ocm/2/totalPower";

std::string written(const std::string& path, const std::string& colour) {
    return "led_velt write " + path + "=\"" + colour + '"';
}

const std::string enable_read = "booster read data/enable";
const std::string los_read = "booster read data/rx/losPin";
const std::string total_power_read = "wss_edge read data/ocm/2/totalPower";

test::log_line failed(const std::string& text) {
    return {3, "tm_velt_led_manager", "msg: Caught " + text};
}

// Where a search looks for the channels of an LED.
struct place {
    std::string monitor;
    std::string wss;
};
const place one_port{"data/ocm/1/channel/", "data/wss/channel/"};
const place edfa_port{"data/ocm/1/channel/", "data/wss/1/channel/"};
const place eq_port{"data/ocm/2/channel/", "data/wss/2/channel/"};

// The reads of a search that ends at the last channel given.
strings search(const place& where, int last = 48) {
    strings reads;
    for (int channel = 1; channel <= last; ++channel) {
        const std::string number = std::to_string(channel);
        reads.push_back("wss_edge read " + where.monitor + number + "/detected");
        reads.push_back("wss_edge read " + where.wss + number + "/port");
    }
    return reads;
}

strings joined(const std::vector<strings>& parts) {
    strings all;
    for (const strings& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

class Led : public testing::Test {
  protected:
    Led() {
        record(wss_edge_, "wss_edge");
        record(booster_, "booster");
        record(led_velt_, "led_velt");
        booster_.set("data/enable", true);
        booster_.set("data/rx/losPin", false);
        wss_edge_.set(total_power, -10.0F);
        for (const place& where : {one_port, edfa_port, eq_port}) {
            for (int channel = 1; channel <= 49; ++channel)
                lead(where, channel, false, "off");
        }
    }

    ~Led() override {
        time_.open();
        led_.reset();
        wss_edge_.stop();
        booster_.stop();
        led_velt_.stop();
    }

    void record(test::scripted_handler& handler, const std::string& name) {
        handler.on_request(
            [this, name](const std::string& asked) { requests_.add(name + " " + asked); });
    }

    void lead(const place& where, int channel, bool detected, const std::string& port) {
        const std::string number = std::to_string(channel);
        wss_edge_.set(where.monitor + number + "/detected", detected);
        wss_edge_.set(where.wss + number + "/port", port);
    }

    void create() {
        led_ = led::create(nullptr);
        ASSERT_TRUE(time_.comes_to_rest());
    }
    // To before the first pass.
    void start(const std::string& board) {
        test::put_board(board);
        create();
        led_->start();
    }

    // What the next pass asks for and writes.
    strings pass() {
        const std::size_t before = requests_.all().size();
        time_.let_pass(1s);
        EXPECT_TRUE(time_.comes_to_rest());
        const strings all = requests_.all();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }

    static strings writes(const strings& requests) {
        strings found;
        for (const std::string& request : requests) {
            if (request.starts_with("led_velt write "))
                found.push_back(request);
        }
        return found;
    }

    lines failures() const {
        lines found;
        for (const test::log_line& line : log_.lines()) {
            if (line.severity == msg_log::failure)
                found.push_back(line);
        }
        return found;
    }

    test::gated_time time_;
    test::log_capture log_;
    test::recorded_texts requests_;
    test::scripted_handler wss_edge_{"/tmp/device_handlers/wss_edge"};
    test::scripted_handler booster_{"/tmp/device_handlers/booster"};
    test::scripted_handler led_velt_{"/tmp/device_handlers/led_velt"};
    std::shared_ptr<led> led_;
};

// --- the thread ---

TEST_F(Led, PowerAndStatusAreSetToGreenOnceAndBeforeTheStart) {
    test::put_board("velt,k47");
    create();
    const strings first{written("config/powerLed/status", "green"),
                        written("config/statusLed/status", "green")};
    EXPECT_EQ(requests_.all(), first);
    led_->start();
    for (int i = 0; i < 3; ++i) {
        const strings requests = pass();
        EXPECT_THAT(requests, testing::Not(testing::Contains(first[0])));
        EXPECT_THAT(requests, testing::Not(testing::Contains(first[1])));
    }
}

TEST_F(Led, NoOtherLedIsSetBeforeTheStart) {
    test::put_board("velt,k47");
    create();
    time_.let_pass(1s);
    ASSERT_TRUE(eventually([&] { return time_.sleeps().size() == 1; }));
    EXPECT_FALSE(time_.comes_to_rest(1s));  // waits for the start, and not for the next pass
    EXPECT_EQ(requests_.all().size(), 2U);
    led_->start();
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_GT(requests_.all().size(), 2U);
}

TEST_F(Led, CanEndWithoutHavingBeenStarted) {
    test::put_board("velt,k47");
    create();
    time_.open();
    led_.reset();
    EXPECT_EQ(requests_.all().front(), written("config/powerLed/status", "green"));
}

TEST_F(Led, PassesAreASecondApart) {
    start("velt,k47");
    for (int i = 0; i < 3; ++i)
        pass();
    EXPECT_THAT(time_.sleeps(), ElementsAre(1s, 1s, 1s));
}

TEST_F(Led, UnknownPlatformIsLoggedEachSecondAndSetsNothing) {
    start("velt,other");
    for (int i = 0; i < 3; ++i)
        EXPECT_THAT(pass(), IsEmpty());
    EXPECT_EQ(log_.lines(),
              lines(3, {7, "manage_leds", "msg: VELT LED manager - Unknown platform."}));
    EXPECT_EQ(requests_.all().size(), 2U);
}

TEST_F(Led, AmplifierVariantIsAskedForBeforeTheOthers) {
    test::put_file("/proc/device-tree/compatible", std::string("velt,t47\0velt,k47\0", 18));
    create();
    led_->start();
    EXPECT_EQ(writes(pass()).size(), 3U);
    EXPECT_THAT(failures(), IsEmpty());
}

TEST_F(Led, VariantOfOnePortIsAskedForBeforeThatOfTwo) {
    test::put_file("/proc/device-tree/compatible", std::string("velt,mx47\0velt,t47\0", 20));
    create();
    led_->start();
    const strings requests = pass();
    EXPECT_THAT(requests, testing::Contains("wss_edge read data/wss/channel/1/port"));
    EXPECT_THAT(failures(), IsEmpty());
}

// Takes the place of the log, and fails where a pass tells of an unknown platform.
class failing_log {
  public:
    failing_log() { msg_log::instance().set_sink(&failing_log::take, this); }
    ~failing_log() {
        msg_log::instance().set_sink(nullptr, nullptr);
        msg_log::instance().set_level(static_cast<msg_log::severity_level>(0));
    }
    failing_log(const failing_log&) = delete;
    failing_log& operator=(const failing_log&) = delete;

    test::recorded_texts lines;
    std::function<void()> failure;

  private:
    static void take(void* context, msg_log::severity_level severity, const std::string& channel,
                     const std::string& text) {
        auto& log = *static_cast<failing_log*>(context);
        log.lines.add(std::to_string(severity) + " " + channel + " " +
                      text.substr(0, text.rfind(" [")));
        if (channel == "manage_leds")
            log.failure();
    }
};

TEST_F(Led, PassThatFailsIsLoggedAndTheNextOneComesAfterFiveMoreSeconds) {
    failing_log log;
    std::vector<std::function<void()>> failing{[] {
                                                   throw dh_client_exception{5, "refused"};
                                               },
                                               [] { throw std::runtime_error("broken"); },
                                               [] { throw 5; }, [] {}};
    log.failure = [&failing] {
        const auto next = failing.front();
        failing.erase(failing.begin());
        next();
    };
    start("velt,other");
    time_.let_pass(19s);
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_THAT(time_.sleeps(), ElementsAre(1s, 5s, 1s, 5s, 1s, 5s, 1s));
    const std::string pass = "7 manage_leds msg: VELT LED manager - Unknown platform.";
    EXPECT_THAT(
        log.lines.all(),
        ElementsAre(pass, "3 tm_velt_led_manager msg: Caught dh client exception: refused", pass,
                    "3 tm_velt_led_manager msg: Caught exception: unknown reason.", pass,
                    "3 tm_velt_led_manager msg: Caught exception: unknown reason.", pass));
}

// --- the amplifier card ---

TEST_F(Led, PassOfAnAmplifierCardThatShines) {
    start("velt,k47");
    const strings expected{enable_read, written(edfa_tx, "green"),
                           los_read,    written(edfa_rx, "green"),
                           enable_read, written(ocm_tx, "green")};
    EXPECT_EQ(pass(), expected);
    EXPECT_EQ(pass(), expected);  // changed or not
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Led, PassOfAnAmplifierCardThatIsDark) {
    start("velt,k47");
    booster_.set("data/enable", false);
    booster_.set("data/rx/losPin", true);
    EXPECT_THAT(pass(), ElementsAre(enable_read, written(edfa_tx, "off"), los_read,
                                    written(edfa_rx, "off"), enable_read, written(ocm_tx, "off")));
}

TEST_F(Led, AmplifierWhoseEnableCannotBeReadLeavesItsLedsAsTheyAre) {
    start("velt,k47");
    booster_.set_error("data/enable", -5, "unreadable");
    EXPECT_THAT(pass(), ElementsAre(enable_read, enable_read));
    EXPECT_EQ(failures(), lines(2, failed("booster dh client exception: unreadable")));
}

TEST_F(Led, AmplifierWhoseInputCannotBeReadLeavesOnlyThatLedAsItIs) {
    start("velt,k47");
    booster_.set_error("data/rx/losPin", -5, "unreadable");
    EXPECT_THAT(pass(), ElementsAre(enable_read, written(edfa_tx, "green"), los_read, enable_read,
                                    written(ocm_tx, "green")));
    EXPECT_EQ(failures(), lines{failed("booster dh client exception: unreadable")});
}

TEST_F(Led, ReadingOfTheWrongTypeIsAFailure) {
    start("velt,k47");
    booster_.set("data/rx/losPin", "no");
    EXPECT_EQ(writes(pass()), (strings{written(edfa_tx, "green"), written(ocm_tx, "green")}));
    EXPECT_EQ(failures(),
              lines{failed("booster dh client exception: expected bool, found string")});
}

// --- the card with two ways ---

TEST_F(Led, PassOfATwoWayCardThatIsDark) {
    start("velt,t47");
    booster_.set("data/enable", false);
    wss_edge_.set(total_power, -60.0F);
    EXPECT_EQ(pass(), joined({{enable_read, written(edfa_tx, "off")},
                              search(one_port),
                              {written(edfa_rx, "off"), total_power_read, written(ocm_rx, "off")},
                              search(one_port),
                              {written(express_rx, "off")}}));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Led, SearchesOfATwoWayCardStopAtTheFirstChannelOfTheirPort) {
    start("velt,t47");
    lead(one_port, 3, true, "express");
    lead(one_port, 5, true, "edfa");
    lead(one_port, 6, true, "edfa");
    lead(one_port, 7, true, "express");
    const strings expected =
        joined({{enable_read, written(edfa_tx, "green")},
                search(one_port, 5),
                {written(edfa_rx, "green"), total_power_read, written(ocm_rx, "green")},
                search(one_port, 3),
                {written(express_rx, "green")}});
    EXPECT_EQ(pass(), expected);
    EXPECT_EQ(pass(), expected);
}

TEST_F(Led, DetectedChannelOnAnotherPortDoesNotLightTheLed) {
    start("velt,t47");
    lead(one_port, 1, true, "express");
    EXPECT_EQ(writes(pass()), (strings{written(edfa_tx, "green"), written(edfa_rx, "off"),
                                       written(ocm_rx, "green"), written(express_rx, "green")}));
    lead(one_port, 1, true, "edfa");
    EXPECT_EQ(writes(pass()), (strings{written(edfa_tx, "green"), written(edfa_rx, "green"),
                                       written(ocm_rx, "green"), written(express_rx, "off")}));
    lead(one_port, 1, true, "on");
    EXPECT_EQ(writes(pass()), (strings{written(edfa_tx, "green"), written(edfa_rx, "off"),
                                       written(ocm_rx, "green"), written(express_rx, "off")}));
}

TEST_F(Led, ChannelThatIsNotDetectedDoesNotLightTheLedOfItsPort) {
    start("velt,t47");
    lead(one_port, 1, false, "edfa");
    EXPECT_THAT(writes(pass()), testing::Contains(written(edfa_rx, "off")));
}

TEST_F(Led, ChannelFortyEightIsTheLastOneThatIsLookedAt) {
    start("velt,t47");
    lead(one_port, 49, true, "edfa");
    const strings requests = pass();
    EXPECT_THAT(requests, testing::Contains("wss_edge read data/ocm/1/channel/48/detected"));
    EXPECT_THAT(requests,
                testing::Not(testing::Contains("wss_edge read data/ocm/1/channel/49/detected")));
    EXPECT_THAT(requests, testing::Contains(written(edfa_rx, "off")));
    lead(one_port, 48, true, "edfa");
    EXPECT_THAT(pass(), testing::Contains(written(edfa_rx, "green")));
}

TEST_F(Led, TotalPowerExactlyAtTheMarkWritesNothing) {
    start("velt,t47");
    wss_edge_.set(total_power, -38.0F);
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(writes(pass()), (strings{written(edfa_tx, "green"), written(edfa_rx, "off"),
                                           written(express_rx, "off")}));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Led, TotalPowerNextToTheMarkDecides) {
    start("velt,t47");
    wss_edge_.set(total_power, std::nextafter(-38.0F, 0.0F));
    EXPECT_THAT(writes(pass()), testing::Contains(written(ocm_rx, "green")));
    wss_edge_.set(total_power, std::nextafter(-38.0F, -100.0F));
    EXPECT_THAT(writes(pass()), testing::Contains(written(ocm_rx, "off")));
}

// A figure finer than a 32-bit number holds.
TEST_F(Led, TotalPowerIsComparedInSinglePrecision) {
    start("velt,t47");
    wss_edge_.set(total_power, -38.000001);
    EXPECT_EQ(writes(pass()).size(), 3U);
    wss_edge_.set(total_power, -37.999999);
    EXPECT_EQ(writes(pass()).size(), 3U);
}

TEST_F(Led, TotalPowerThatCannotBeReadLeavesItsLedAsItIs) {
    start("velt,t47");
    wss_edge_.set_json(total_power, "null");
    EXPECT_EQ(writes(pass()), (strings{written(edfa_tx, "green"), written(edfa_rx, "off"),
                                       written(express_rx, "off")}));
    wss_edge_.set_error(total_power, -5, "unreadable");
    EXPECT_EQ(writes(pass()).size(), 3U);
    EXPECT_EQ(failures(), (lines{failed("WSS dh client exception: expected float, found null"),
                                 failed("WSS dh client exception: unreadable")}));
}

TEST_F(Led, BoosterThatCannotBeReadDoesNotKeepTheOtherLedsFromBeingSet) {
    start("velt,t47");
    booster_.set_error("data/enable", -5, "unreadable");
    lead(one_port, 2, true, "edfa");
    EXPECT_EQ(pass(),
              joined({{enable_read},
                      search(one_port, 2),
                      {written(edfa_rx, "green"), total_power_read, written(ocm_rx, "green")},
                      search(one_port),
                      {written(express_rx, "off")}}));
    EXPECT_EQ(failures(), lines{failed("booster dh client exception: unreadable")});
}

TEST_F(Led, SearchGoesOnPastChannelsThatCannotBeRead) {
    start("velt,t47");
    lead(one_port, 1, true, "edfa");
    lead(one_port, 2, true, "edfa");
    lead(one_port, 4, true, "edfa");
    wss_edge_.set_error("data/ocm/1/channel/1/detected", -5, "no reading");
    wss_edge_.set_error("data/wss/channel/2/port", -5, "no port");
    const strings requests = pass();
    EXPECT_THAT(requests, testing::Contains(written(edfa_rx, "green")));
    EXPECT_THAT(requests, testing::Not(testing::Contains("wss_edge read data/wss/channel/1/port")));
    EXPECT_EQ(failures(), (lines{failed("wss dh client exception: no reading"),
                                 failed("wss dh client exception: no port"),
                                 failed("WSS dh client exception: no reading"),
                                 failed("WSS dh client exception: no port")}));
}

TEST_F(Led, WssHandlerThatIsAwayForAPassCostsALineAReadingAndDarkensTheSearches) {
    start("velt,t47");
    lead(one_port, 1, true, "edfa");
    lead(one_port, 2, true, "express");
    const strings lit{written(edfa_tx, "green"), written(edfa_rx, "green"),
                      written(ocm_rx, "green"), written(express_rx, "green")};
    EXPECT_EQ(writes(pass()), lit);
    wss_edge_.stop();
    EXPECT_EQ(pass(), (strings{enable_read, written(edfa_tx, "green"), written(edfa_rx, "off"),
                               written(express_rx, "off")}));
    std::size_t first_search = 0;
    std::size_t others = 0;
    for (const test::log_line& line : failures()) {
        EXPECT_EQ(line.channel, "tm_velt_led_manager");
        first_search += line.text.starts_with("msg: Caught wss dh client exception: ") ? 1 : 0;
        others += line.text.starts_with("msg: Caught WSS dh client exception: ") ? 1 : 0;
    }
    EXPECT_EQ(first_search, 48U);
    EXPECT_EQ(others, 49U);  // the total power, and the second search
    wss_edge_.start();
    EXPECT_TRUE(eventually([&] { return writes(pass()) == lit; }));
}

// Each failing write is told of as if its reading had failed.
TEST_F(Led, LedHandlerThatRefusesLeavesThePassGoingOn) {
    start("velt,t47");
    lead(one_port, 1, true, "edfa");
    for (const std::string& path : {edfa_tx, edfa_rx, ocm_rx, express_rx})
        led_velt_.fail_writes(path, -5, path);
    EXPECT_EQ(pass(),
              joined({{enable_read, written(edfa_tx, "green")},
                      search(one_port, 1),
                      {written(edfa_rx, "green"), total_power_read, written(ocm_rx, "green")},
                      search(one_port),
                      {written(express_rx, "off")}}));
    EXPECT_EQ(failures(), (lines{failed("booster dh client exception: " + edfa_tx),
                                 failed("wss dh client exception: " + edfa_rx),
                                 failed("WSS dh client exception: " + ocm_rx),
                                 failed("WSS dh client exception: " + express_rx)}));
}

TEST_F(Led, LedHandlerThatIsAwayIsServedAgainWhenItReturns) {
    start("velt,k47");
    EXPECT_EQ(writes(pass()).size(), 3U);
    led_velt_.stop();
    EXPECT_THAT(writes(pass()), IsEmpty());
    EXPECT_EQ(failures().size(), 2U);  // a manager ends with the first write that fails
    led_velt_.start();
    EXPECT_TRUE(eventually([&] { return writes(pass()).size() == 3; }));
}

// --- the card with two ports ---

TEST_F(Led, PassOfATwoPortCardThatIsDark) {
    start("velt,mx47");
    booster_.set("data/enable", false);
    wss_edge_.set(total_power, -60.0F);
    EXPECT_EQ(pass(), joined({{enable_read, written(edfa_tx, "off")},
                              search(edfa_port),
                              {written(edfa_rx, "off"), total_power_read, written(ocm_rx, "off")},
                              search(eq_port),
                              {written(express_rx, "off"), written(express_tx, "off")}}));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(Led, SearchesOfATwoPortCardAreOfThePortsOwnMonitors) {
    start("velt,mx47");
    lead(edfa_port, 48, true, "on");
    lead(eq_port, 2, true, "on");
    EXPECT_EQ(pass(),
              joined({{enable_read, written(edfa_tx, "green")},
                      search(edfa_port),
                      {written(edfa_rx, "green"), total_power_read, written(ocm_rx, "green")},
                      search(eq_port, 2),
                      {written(express_rx, "green"), written(express_tx, "green")}}));
}

TEST_F(Led, ChannelOfATwoPortCardThatIsSwitchedOffDoesNotLightItsLed) {
    start("velt,mx47");
    lead(edfa_port, 1, true, "off");
    lead(eq_port, 1, true, "edfa");
    EXPECT_EQ(writes(pass()),
              (strings{written(edfa_tx, "green"), written(edfa_rx, "off"), written(ocm_rx, "green"),
                       written(express_rx, "off"), written(express_tx, "off")}));
}

TEST_F(Led, TwoPortCardTellsItsFailuresApart) {
    start("velt,mx47");
    booster_.set_error("data/enable", -5, "one");
    wss_edge_.set_error("data/ocm/1/channel/7/detected", -5, "two");
    wss_edge_.set_error(total_power, -5, "three");
    wss_edge_.set_error("data/ocm/2/channel/7/detected", -5, "four");
    led_velt_.fail_writes(express_rx, -5, "five");
    // The second LED of a search that cannot be shown is left as it is.
    EXPECT_EQ(writes(pass()), (strings{written(edfa_rx, "off"), written(express_rx, "off")}));
    EXPECT_EQ(
        failures(),
        (lines{failed("booster dh client exception: one"), failed("wss dh client exception: two"),
               failed("WSS dh client exception: three"), failed("WSS dh client exception: four"),
               failed("WSS dh client exception: five")}));
}

// --- the setters ---

struct settable_led {
    std::string name;
    void (led::*set)(led_value_t);
    std::string path;
    strings accepted;
    std::string refusal;
};

class LedSetter : public Led, public testing::WithParamInterface<settable_led> {};

TEST_P(LedSetter, WritesTheColoursThatTheLedTakesAndRefusesTheOthers) {
    const settable_led& one = GetParam();
    test::put_board("velt,k47");
    create();
    strings expected = requests_.all();
    for (unsigned value = 0; value <= 4; ++value) {
        const auto colour = static_cast<led_value_t>(value);
        const std::string text = led_value_to_string(colour);
        if (std::find(one.accepted.begin(), one.accepted.end(), text) != one.accepted.end()) {
            ((*led_).*one.set)(colour);
            expected.push_back(written(one.path, text));
            continue;
        }
        try {
            ((*led_).*one.set)(colour);
            ADD_FAILURE() << text << " is taken";
        } catch (const dh_client_exception& refused) {
            EXPECT_EQ(refused.code, -14);
            EXPECT_EQ(refused.message, one.refusal);
        }
    }
    EXPECT_EQ(requests_.all(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    All, LedSetter,
    testing::Values(settable_led{"Status",
                                 &led::set_status_led,
                                 "config/statusLed/status",
                                 {"off", "green", "red"},
                                 "Status Led must be off or green or red"},
                    settable_led{"Power",
                                 &led::set_power_led,
                                 "config/powerLed/status",
                                 {"green", "red"},
                                 "Power Led must be green or red"},
                    settable_led{"OcmTx",
                                 &led::set_ocm_tx_led,
                                 ocm_tx,
                                 {"off", "green", "yellow"},
                                 "OCM Tx Led must be off or green or yellow"},
                    settable_led{"OcmRx",
                                 &led::set_ocm_rx_led,
                                 ocm_rx,
                                 {"off", "green", "yellow"},
                                 "OCM Rx Led must be off or green or yellow"},
                    settable_led{"EdfaTx",
                                 &led::set_edfa_tx_led,
                                 edfa_tx,
                                 {"off", "green", "yellow"},
                                 "EDFA Tx Led must be off or green or yellow"},
                    settable_led{"EdfaRx",
                                 &led::set_edfa_rx_led,
                                 edfa_rx,
                                 {"off", "green", "yellow"},
                                 "EDFA Rx Led must be off or green or yellow"},
                    settable_led{"ExpressTx",
                                 &led::set_express_tx_led,
                                 express_tx,
                                 {"off", "green", "yellow"},
                                 "Express Tx Led must be off or green or yellow"},
                    settable_led{"ExpressRx",
                                 &led::set_express_rx_led,
                                 express_rx,
                                 {"off", "green", "yellow"},
                                 "Express Rx Led must be off or green or yellow"}),
    [](const auto& tested) { return tested.param.name; });

TEST(LedColour, HasItsText) {
    EXPECT_EQ(led_value_to_string(led_value_t::off), "off");
    EXPECT_EQ(led_value_to_string(led_value_t::green), "green");
    EXPECT_EQ(led_value_to_string(led_value_t::red), "red");
    EXPECT_EQ(led_value_to_string(led_value_t::yellow), "yellow");
    EXPECT_EQ(led_value_to_string(static_cast<led_value_t>(4)), "unknown");
}

}  // namespace
