// Reflection measurements against handlers made in the test.
#include "otdr.hpp"
#include "manual_time.hpp"
#include "mirror_fixture.hpp"
#include "scripted_handler.hpp"

#include <gmock/gmock.h>

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <future>
#include <iterator>
#include <optional>
#include <thread>

namespace {

using test::eventually;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using namespace std::chrono_literals;
using strings = std::vector<std::string>;
using distances = std::vector<int>;

const std::string refpoint_file = "/var/persistent/etc/otdr_refpoint_save.json";
const std::string present_path = "otdr/interface/2/present";
constexpr const char* empty_measurement =
    R"({"valid":false,"timestamp":0,"numOfReflections":0,"oscFiberlength":0,)"
    R"("oscLinkUp":false,"distances":[],"ghosts":[]})";
const test::error no_data{-22, "No OTDR measurement data available, please try again."};
const test::error bad_number{-22, "Invalid measurement number."};

// All but "otdr/present" and the mirrored state, in the order in which they come.
const strings attributes{
    "otdr/command/measure",           "otdr/command/saveRefpoint", "otdr/command/deleteRefpoint",
    "otdr/command/deleteMeasurement", "otdr/data/refpoint",        "otdr/data/pointer",
    "otdr/data/oscFiberlength",       "otdr/data/measurement/1",   "otdr/data/measurement/2",
    "otdr/data/measurement/3",        "otdr/data/measurement/4",   "otdr/data/measurement/5",
    "otdr/data/configStatus"};

// Tells the object of its transceiver's handler, as the daemon does.
class sfp_events final : public device_handler_connection_subscriber {
  public:
    void connection_established_event(std::string) override {
        const std::lock_guard lock(mutex);
        if (target)
            target->on_connect_sfp();
        ++established;
    }
    void connection_lost_event(std::string) override {
        const std::lock_guard lock(mutex);
        if (target)
            target->on_disconnect_sfp();
        ++lost;
    }

    std::mutex mutex;
    std::shared_ptr<otdr> target;  // guarded by the mutex
    std::atomic<int> established{0};
    std::atomic<int> lost{0};
};

class Otdr : public testing::Test {
  protected:
    Otdr() {
        std::filesystem::create_directories(test::root() + "/var/persistent/etc");
        sfp_.set("present", true);
        sfp_.set("data/otdrSupport", true);
        sfp_.answer_writes("command/measureOtdr", "true");
        osc_.set("data/linkStatus", "down");
        osc_.set("data/fiberLength", 0.0F);
    }

    ~Otdr() override {
        destroy();
        sfp_client_.reset();
        osc_client_.reset();
        proxy_->clients.clear();
        test::let_deliveries_end();
        test::empty_root();
    }

    // --- its life ---

    void create() {
        {
            const std::lock_guard lock(events_->mutex);
            osc_client_ = device_handler_client::create("/tmp/device_handlers/osc2", "osc/2", {});
            sfp_client_ =
                device_handler_client::create("/tmp/device_handlers/sfp/1", "interface/2", events_);
            otdr_ = otdr::create(2, proxy_, nullptr, osc_client_, sfp_client_);
            events_->target = otdr_;
        }
        ASSERT_TRUE(eventually([&] { return events_->established == 1; }));
        ASSERT_TRUE(eventually([&] { return db_.contains(present_path); }));
        let_event_end();
    }
    // Returns when nobody holds it any more.
    void destroy() {
        const std::weak_ptr<otdr> destroyed = otdr_;
        {
            const std::lock_guard lock(events_->mutex);
            events_->target.reset();
            otdr_.reset();
        }
        EXPECT_TRUE(eventually([&] { return destroyed.expired(); }));
    }
    void lose_handler() {
        sfp_.stop();
        ASSERT_TRUE(eventually([&] { return events_->lost == 1; }));
    }
    void return_handler() {
        sfp_.start();
        ASSERT_TRUE(eventually([&] { return events_->established == 2; }));
    }
    // Returns when the object has seen the change.
    void pull_transceiver() {
        sfp_.set("present", false);
        ASSERT_TRUE(
            eventually([&] { return log_.count("msg: sfp/2 was removed.") == removals_ + 1; }));
        ++removals_;
        let_event_end();
    }
    void put_transceiver() {
        sfp_.set("present", true);
        ASSERT_TRUE(
            eventually([&] { return log_.count("msg: sfp/2 was inserted.") == inserts_ + 1; }));
        ++inserts_;
        let_event_end();
    }
    static void let_event_end() { test::let_deliveries_end(); }

    // --- the tree ---

    std::string value_of(const std::string& path) {
        const std::string text = test::read(*db_.find_leaf_node(path));
        return text.substr(9, text.size() - 10);
    }
    std::string measurement(unsigned number) {
        return value_of(fmt::format("otdr/data/measurement/{}", number));
    }
    std::string refpoint() { return value_of("otdr/data/refpoint"); }
    std::string pointer() { return value_of("otdr/data/pointer"); }

    bool is_mirrored_as(const std::string& value) {
        return eventually(
            [&] { return db_.contains(present_path) && value_of(present_path) == value; });
    }

    strings paths() const {
        strings found;
        for (const auto& entry : db_.nodes_under("otdr"))
            found.push_back(entry.path);
        return found;
    }
    static strings paths_when_available() {
        strings expected = attributes;
        expected.insert(expected.end(), {present_path, "otdr/present"});
        std::sort(expected.begin(), expected.end());
        return expected;
    }
    void expect_available() {
        EXPECT_EQ(value_of("otdr/present"), "true");
        EXPECT_THAT(paths(), ElementsAreArray(paths_when_available()));
    }
    void expect_absent() {
        EXPECT_EQ(value_of("otdr/present"), "false");
        EXPECT_THAT(paths(), ElementsAre(present_path, "otdr/present"));
    }

    // --- commands ---

    std::string run(const std::string& command, const std::string& argument) {
        return test::run(*db_.find_leaf_node("otdr/command/" + command), argument);
    }
    template <class Argument>
    std::optional<test::error> error_of(const std::string& command, Argument argument) {
        return test::error_of([&] { run(command, fmt::format("{}", argument)); });
    }

    void report(const distances& reported) {
        sfp_.set("data/reflectionsDetected", static_cast<int>(reported.size()));
        for (std::size_t i = 0; i < reported.size(); ++i)
            sfp_.set(fmt::format("data/reflection/{}/distance", i + 1), reported[i]);
    }
    void measure(const distances& reported) {
        report(reported);
        ASSERT_EQ(run("measure", "true"), R"({"value":true})");
    }
    void set_link(const std::string& status, float km) {
        osc_.set("data/linkStatus", status);
        osc_.set("data/fiberLength", km);
    }

    // A measurement that was made now, as JSON.
    static std::string measured(unsigned length, bool is_up, const std::string& places,
                                const std::string& ghosts) {
        const auto count = places.empty() ? 0 : std::count(places.begin(), places.end(), ',') + 1;
        return fmt::format(
            R"({{"valid":true,"timestamp":{},"numOfReflections":{},"oscFiberlength":{},)"
            R"("oscLinkUp":{},"distances":[{}],"ghosts":[{}]}})",
            now(), count, length, is_up, places, ghosts);
    }
    static std::int64_t now() {
        return std::chrono::duration_cast<std::chrono::seconds>(host::time().wall()).count();
    }

    static std::string stored() {
        std::ifstream file(test::root() + refpoint_file, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    bool has_logged(int severity, const std::string& text,
                    const std::string& channel = "tm_velt_otdr_manager") const {
        const auto lines = log_.lines();
        return std::find(lines.begin(), lines.end(), test::log_line{severity, channel, text}) !=
               lines.end();
    }

    test::log_capture log_;
    test::manual_time time_;
    dh_db db_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_ = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
    test::scripted_handler sfp_{"/tmp/device_handlers/sfp/1"};
    test::scripted_handler osc_{"/tmp/device_handlers/osc2"};
    std::shared_ptr<sfp_events> events_ = std::make_shared<sfp_events>();
    std::shared_ptr<device_handler_client> osc_client_;
    std::shared_ptr<device_handler_client> sfp_client_;
    std::shared_ptr<otdr> otdr_;
    std::size_t removals_ = 0;
    std::size_t inserts_ = 0;
};

// --- the tree and the transceiver ---

TEST_F(Otdr, OnlyPresentIsThereBeforeTheTransceiversHandler) {
    sfp_.stop();
    {
        const std::lock_guard lock(events_->mutex);
        otdr_ = otdr::create(2, proxy_, nullptr, nullptr, nullptr);
    }
    EXPECT_THAT(paths(), ElementsAre("otdr/present"));
    EXPECT_EQ(value_of("otdr/present"), "false");
    EXPECT_TRUE(proxy_->is_excluded(present_path));
}

TEST_F(Otdr, ClientOfTheSystemInformationIsAmongThoseOfTheProxy) {
    create();
    ASSERT_EQ(proxy_->clients.size(), 1U);
    EXPECT_EQ(proxy_->clients[0]->name(), "system info");
    EXPECT_EQ(otdr_->client(), sfp_client_);
}

TEST_F(Otdr, AttributesAreThereWhereTheTransceiverCanMeasure) {
    create();
    expect_available();
    EXPECT_EQ(value_of("otdr/data/configStatus"), "true");
    EXPECT_EQ(db_.find_leaf_node("otdr/command/measure")->poll_interval(), 1000U);
    EXPECT_EQ(log_.count("msg: sfp/2 was inserted."), 0U);
}

TEST_F(Otdr, AttributesComeInOrderAndTheirStatusLast) {
    const auto session = std::make_shared<test::recording_session>();
    db_.watch("otdr/command", session, [](const auto&) {});
    db_.watch("otdr/data", session, [](const auto&) {});
    create();
    const auto events = session->events();
    ASSERT_EQ(events.size(), attributes.size());
    for (std::size_t i = 0; i < events.size(); ++i)
        EXPECT_THAT(events[i],
                    HasSubstr(fmt::format(R"("event":"added","path":"{}")", attributes[i])));
}

TEST_F(Otdr, NodesTellWhatTheyAre) {
    create();
    EXPECT_EQ(test::info(*db_.find_leaf_node("otdr/command/saveRefpoint")),
              R"({"type":"command","valueType":"int","returnType":"bool",)"
              R"("capabilities":{"write":true}})");
    EXPECT_EQ(test::info(*db_.find_leaf_node("otdr/data/pointer")),
              R"({"valueType":"unsigned int","capabilities":{"read":true},)"
              R"("type":"volatile value"})");
    EXPECT_EQ(test::read(*db_.find_leaf_node("otdr/data/pointer")), R"({"value":0})");
}

TEST_F(Otdr, TransceiverThatCannotMeasureHasNoAttributes) {
    sfp_.set("data/otdrSupport", false);
    create();
    expect_absent();
}

TEST_F(Otdr, EmptyCageHasNoAttributes) {
    sfp_.set("present", false);
    create();
    ASSERT_TRUE(
        eventually([&] { return has_logged(6, "msg: sfp/2 was removed.", "tm_velt_otdr"); }));
    expect_absent();
}

TEST_F(Otdr, HandlerThatDoesNotTellItsSupportIsLogged) {
    sfp_.set_error("data/otdrSupport", -5, "bus error");
    create();
    EXPECT_TRUE(has_logged(3, "msg: Caught sfp plus dh client exception: bus error"));
    expect_absent();
}

TEST_F(Otdr, PullingTheTransceiverRemovesAllPathsOfTheAttributes) {
    create();
    const auto session = std::make_shared<test::recording_session>();
    db_.watch("otdr", session, [](const auto&) {});
    test::subscribe(*db_.find_leaf_node("otdr/data/configStatus"), session);
    session->clear();
    pull_transceiver();
    expect_absent();
    EXPECT_TRUE(has_logged(6, "msg: sfp/2 was removed.", "tm_velt_otdr"));
    EXPECT_THAT(session->events(),
                Contains(R"({"event":"ended","path":"otdr/data/configStatus","reason":1})"));
    for (const std::string& path : attributes)
        EXPECT_THAT(session->events(),
                    Contains(fmt::format(R"({{"event":"removed","path":"{}"}})", path)));
}

TEST_F(Otdr, TransceiverPutBackBringsThemBack) {
    create();
    pull_transceiver();
    put_transceiver();
    expect_available();
    EXPECT_TRUE(has_logged(6, "msg: sfp/2 was inserted.", "tm_velt_otdr"));
    measure({1000});
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
}

TEST_F(Otdr, AnotherTransceiverThatCannotMeasureBringsNone) {
    create();
    pull_transceiver();
    sfp_.set("data/otdrSupport", false);
    put_transceiver();
    expect_absent();
    pull_transceiver();
    sfp_.set("data/otdrSupport", true);
    put_transceiver();
    expect_available();
}

TEST_F(Otdr, PullingAndPuttingBackKeepsTheMeasurements) {
    create();
    measure({1000});
    const std::string before = measurement(1);
    pull_transceiver();
    put_transceiver();
    EXPECT_EQ(measurement(1), before);
    EXPECT_EQ(pointer(), "1");
}

TEST_F(Otdr, InsertionIsTriedAgainWithTheNextEventWhereTheSupportCouldNotBeRead) {
    create();
    pull_transceiver();
    sfp_.set_error("data/otdrSupport", -5, "bus error");
    put_transceiver();
    expect_absent();
    sfp_.set("data/otdrSupport", true);
    put_transceiver();
    expect_available();
}

// --- the handler that comes and goes ---

TEST_F(Otdr, ConnectionWaitsThreeSecondsForTheHandlerToSettle) {
    create();
    EXPECT_EQ(time_.slept(), 3s);
    otdr_->on_connect_sfp();
    EXPECT_EQ(time_.slept(), 3s);
    lose_handler();
    return_handler();
    EXPECT_EQ(time_.slept(), 6s);
}

TEST_F(Otdr, LostHandlerKeepsTheAttributesAndClearsTheMirroredState) {
    create();
    lose_handler();
    expect_available();
    EXPECT_EQ(value_of(present_path), "false");
    EXPECT_EQ(log_.count("msg: sfp/2 was removed."), 0U);
}

TEST_F(Otdr, LossBeforeTheMirroredStateIsThereDoesNoHarm) {
    otdr_ = otdr::create(2, proxy_, nullptr, nullptr, nullptr);
    otdr_->on_disconnect_sfp();
    EXPECT_THAT(paths(), ElementsAre("otdr/present"));
}

TEST_F(Otdr, ReturnedHandlerDoublesNoNode) {
    create();
    const auto node = db_.find_leaf_node("otdr/data/measurement/1");
    log_.clear();
    lose_handler();
    return_handler();
    EXPECT_TRUE(is_mirrored_as("true"));
    let_event_end();
    expect_available();
    EXPECT_EQ(db_.find_leaf_node("otdr/data/measurement/1"), node);
    EXPECT_THAT(log_.texts(4), IsEmpty());
    EXPECT_EQ(log_.count("msg: sfp/2 was inserted."), 0U);
    EXPECT_EQ(log_.count("msg: sfp/2 was removed."), 0U);
    measure({1000});
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
}

TEST_F(Otdr, EventThatTheLossOfTheHandlerHasOvertakenIsNoRemoval) {
    create();
    otdr_->on_disconnect_sfp();
    sfp_.set("present", false);
    let_event_end();
    expect_available();
    EXPECT_EQ(log_.count("msg: sfp/2 was removed."), 0U);
    otdr_->on_connect_sfp();
    ASSERT_TRUE(eventually([&] { return log_.count("msg: sfp/2 was removed.") == 1; }));
    let_event_end();
    expect_absent();
}

TEST_F(Otdr, MeasurementsDoNotOutliveTheHandlersConnectionAndThePointerDoes) {
    create();
    measure({1000});
    measure({2000});
    lose_handler();
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
    return_handler();
    for (unsigned number = 1; number <= 5; ++number)
        EXPECT_EQ(measurement(number), empty_measurement);
    EXPECT_EQ(pointer(), "2");
}

TEST_F(Otdr, TransceiverPulledWhileTheHandlerWasAwayIsNoticedAtItsReturn) {
    create();
    lose_handler();
    sfp_.set("present", false);
    return_handler();
    ASSERT_TRUE(eventually([&] { return log_.count("msg: sfp/2 was removed.") == 1; }));
    let_event_end();
    expect_absent();
}

TEST_F(Otdr, TransceiverExchangedForOneThatCannotMeasureWhileTheHandlerWasAwayHasNoAttributes) {
    create();
    lose_handler();
    sfp_.set("data/otdrSupport", false);
    return_handler();
    EXPECT_TRUE(is_mirrored_as("true"));
    expect_absent();
}

TEST_F(Otdr, TransceiverPutInWhileTheHandlerWasAwayBringsTheAttributes) {
    sfp_.set("present", false);
    create();
    ASSERT_TRUE(eventually([&] { return log_.count("msg: sfp/2 was removed.") == 1; }));
    lose_handler();
    sfp_.set("present", true);
    return_handler();
    ASSERT_TRUE(eventually([&] { return log_.count("msg: sfp/2 was inserted.") == 1; }));
    let_event_end();
    expect_available();
    EXPECT_THAT(log_.texts(4), IsEmpty());
}

TEST_F(Otdr, NodesOutliveTheirOwner) {
    create();
    destroy();
    EXPECT_EQ(test::error_of([&] { value_of("otdr/data/pointer"); }),
              (test::error{-2, "Object has been removed"}));
    EXPECT_EQ(error_of("measure", true), (test::error{-2, "Object has been removed"}));
    sfp_.set("present", false);
    EXPECT_TRUE(is_mirrored_as("false"));
}

// --- measurements ---

TEST_F(Otdr, EmptySlotHasFalseZerosAndEmptyArrays) {
    create();
    for (unsigned number = 1; number <= 5; ++number)
        EXPECT_EQ(measurement(number), empty_measurement);
    EXPECT_EQ(pointer(), "0");
    EXPECT_EQ(value_of("otdr/data/oscFiberlength"), "0.0");
}

TEST_F(Otdr, MeasurementTriggersThenReadsTheCountAndEachDistance) {
    create();
    report({1000, 2500, 6000});
    sfp_.forget_requests();
    osc_.forget_requests();
    run("measure", "false");
    EXPECT_THAT(sfp_.requests(),
                ElementsAre("write command/measureOtdr=true", "read data/reflectionsDetected",
                            "read data/reflection/1/distance", "read data/reflection/2/distance",
                            "read data/reflection/3/distance"));
    EXPECT_THAT(osc_.requests(), ElementsAre("read data/linkStatus"));
    EXPECT_EQ(measurement(1), measured(0, false, "1000,2500,6000", "false,false,false"));
    EXPECT_EQ(pointer(), "1");
}

TEST_F(Otdr, MeasurementOfNothingIsValidWithEmptyArrays) {
    create();
    measure({});
    EXPECT_EQ(measurement(1), measured(0, false, "", ""));
}

TEST_F(Otdr, TimestampIsTheSecondInWhichItWasRead) {
    create();
    time_.advance(10s + 999ms);
    measure({1000});
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
    EXPECT_EQ(time_.wall() / 1s, 365 * 24 * 3600 + 3 + 10);
    time_.advance(1s);
    EXPECT_THAT(measurement(1), HasSubstr(fmt::format(R"("timestamp":{},)", now() - 1)));
}

TEST_F(Otdr, SixthMeasurementOverwritesTheFirst) {
    create();
    for (int i = 1; i <= 5; ++i) {
        EXPECT_EQ(pointer(), std::to_string(i - 1));
        measure({i * 1000});
    }
    EXPECT_EQ(pointer(), "0");
    measure({6000});
    EXPECT_EQ(pointer(), "1");
    EXPECT_EQ(measurement(1), measured(0, false, "6000", "false"));
    EXPECT_EQ(measurement(2), measured(0, false, "2000", "false"));
    EXPECT_EQ(measurement(5), measured(0, false, "5000", "false"));
}

TEST_F(Otdr, ArgumentThatIsNoBoolIsRefusedWithoutAMeasurement) {
    create();
    sfp_.forget_requests();
    EXPECT_EQ(test::conversion_error_of([&] { run("measure", "1"); }),
              "expected bool, found 32-bit unsigned integer");
    EXPECT_THAT(sfp_.requests(), IsEmpty());
}

TEST_F(Otdr, FailedTriggerChangesNothing) {
    create();
    measure({1000});
    sfp_.fail_writes("command/measureOtdr", -16, "laser is off");
    EXPECT_EQ(error_of("measure", true), no_data);
    EXPECT_TRUE(has_logged(3, "msg: Caught sfp plus dh client exception: laser is off"));
    EXPECT_EQ(pointer(), "1");
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
    EXPECT_EQ(measurement(2), empty_measurement);
}

TEST_F(Otdr, FailedReadOfTheCountOrOfADistanceChangesNothing) {
    create();
    report({1000, 2500});
    sfp_.set_error("data/reflection/2/distance", -5, "bus error");
    EXPECT_EQ(error_of("measure", true), no_data);
    sfp_.set("data/reflection/2/distance", "far");
    EXPECT_EQ(error_of("measure", true), no_data);
    sfp_.set("data/reflectionsDetected", 1.5F);
    EXPECT_EQ(error_of("measure", true), no_data);
    sfp_.remove("data/reflectionsDetected");
    EXPECT_EQ(error_of("measure", true), no_data);
    EXPECT_TRUE(has_logged(3, "msg: Caught sfp plus dh client exception: bus error"));
    EXPECT_EQ(pointer(), "0");
    EXPECT_EQ(measurement(1), empty_measurement);
}

TEST_F(Otdr, MeasurementAfterAFailedOneGoesOn) {
    create();
    sfp_.fail_writes("command/measureOtdr", -16, "laser is off");
    EXPECT_EQ(error_of("measure", true), no_data);
    sfp_.answer_writes("command/measureOtdr", "true");
    measure({1000});
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
}

TEST_F(Otdr, NegativeCountIsAFailure) {
    create();
    sfp_.set("data/reflectionsDetected", -1);
    EXPECT_EQ(error_of("measure", true), no_data);
    EXPECT_TRUE(has_logged(3, "msg: Caught OTDR velt dh error: -1 reflections were detected"));
    EXPECT_EQ(pointer(), "0");
}

TEST_F(Otdr, FifteenReflectionsAreKept) {
    create();
    measure(distances(15, 1000));
    EXPECT_THAT(measurement(1), HasSubstr(R"("numOfReflections":15,)"));
    EXPECT_THAT(log_.texts(4), IsEmpty());
}

TEST_F(Otdr, MoreReflectionsAreClippedToTheFirstFifteen) {
    create();
    distances many;
    for (int i = 0; i < 16; ++i)
        many.push_back(10 + i);
    measure(many);
    std::string places = "10";
    std::string ghosts = "false";
    for (int i = 1; i < 15; ++i) {
        places += fmt::format(",{}", 10 + i);
        ghosts += ",false";
    }
    EXPECT_TRUE(has_logged(4, "msg: 16 reflections were detected, the first 15 are kept."));
    EXPECT_THAT(measurement(1), AllOf(HasSubstr(R"("numOfReflections":15,)"),
                                      HasSubstr(R"("distances":[)" + places + "]")));
}

TEST_F(Otdr, AbsurdCountReadsNoMoreThanFifteen) {
    create();
    report(distances(15, 1000));
    sfp_.set("data/reflectionsDetected", std::numeric_limits<int>::max());
    sfp_.forget_requests();
    run("measure", "true");
    EXPECT_EQ(sfp_.requests().size(), 17U);
    EXPECT_TRUE(has_logged(4, "msg: 2147483647 reflections were detected, the first 15 are kept."));
}

TEST_F(Otdr, ConcurrentMeasurementsRunOneAfterTheOther) {
    create();
    report({1000, 2000});
    sfp_.forget_requests();
    constexpr int each = 5;
    std::vector<std::future<void>> callers;
    for (int caller = 0; caller < 4; ++caller)
        callers.push_back(std::async(std::launch::async, [&] {
            for (int i = 0; i < each; ++i)
                otdr_->set_measure(true);
        }));
    for (int i = 0; i < 200; ++i) {
        otdr_->get_measurement(i % 5);
        otdr_->get_pointer();
    }
    for (auto& caller : callers)
        caller.get();
    const strings one{"write command/measureOtdr=true", "read data/reflectionsDetected",
                      "read data/reflection/1/distance", "read data/reflection/2/distance"};
    strings all;
    for (int i = 0; i < 4 * each; ++i)
        all.insert(all.end(), one.begin(), one.end());
    EXPECT_EQ(sfp_.requests(), all);
    EXPECT_EQ(pointer(), "0");
}

TEST_F(Otdr, ReadersDoNotWaitForAMeasurement) {
    create();
    measure({1000});
    std::promise<void> go_on;
    std::atomic<bool> measures{false};
    sfp_.on_request([&, gate = go_on.get_future().share()](const std::string& request) {
        if (!request.starts_with("write"))
            return;
        measures = true;
        gate.wait();
    });
    auto running = std::async(std::launch::async, [&] { return run("measure", "true"); });
    EXPECT_TRUE(eventually([&] { return measures.load(); }));
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
    EXPECT_EQ(pointer(), "1");
    EXPECT_EQ(run("deleteMeasurement", "1"), R"({"value":true})");
    go_on.set_value();
    EXPECT_EQ(running.get(), R"({"value":true})");
    EXPECT_EQ(measurement(1), empty_measurement);
    EXPECT_EQ(pointer(), "2");
    sfp_.on_request({});
}

TEST_F(Otdr, HandlerLostDuringAMeasurementFailsIt) {
    create();
    measure({1000});
    // Later than anybody waits; the end of the handler cuts it short.
    sfp_.answer_after(1h);
    sfp_.forget_requests();
    auto running = std::async(std::launch::async, [&] { return error_of("measure", true); });
    EXPECT_TRUE(eventually([&] { return !sfp_.requests().empty(); }));
    lose_handler();
    EXPECT_EQ(running.get(), no_data);
    EXPECT_EQ(measurement(1), measured(0, false, "1000", "false"));
    EXPECT_EQ(pointer(), "1");
}

TEST_F(Otdr, TransceiverPulledDuringAMeasurementFailsItAndRemovesTheCommand) {
    create();
    sfp_.fail_writes("command/measureOtdr", -19, "no transceiver");
    sfp_.on_request([&](const std::string& request) {
        if (request.starts_with("write"))
            sfp_.set("present", false);
    });
    EXPECT_EQ(error_of("measure", true), no_data);
    sfp_.on_request({});
    ASSERT_TRUE(eventually([&] { return log_.count("msg: sfp/2 was removed.") == 1; }));
    let_event_end();
    expect_absent();
}

// --- deleting ---

TEST_F(Otdr, DeletedMeasurementIsEmptyAndThePointerStays) {
    create();
    for (int i = 1; i <= 6; ++i)
        measure({i * 1000});
    EXPECT_EQ(pointer(), "1");
    EXPECT_EQ(run("deleteMeasurement", "4"), R"({"value":true})");
    EXPECT_EQ(measurement(4), empty_measurement);
    EXPECT_EQ(pointer(), "1");
    measure({7000});
    EXPECT_EQ(measurement(2), measured(0, false, "7000", "false"));
    EXPECT_EQ(measurement(4), empty_measurement);
}

TEST_F(Otdr, NumberOfAMeasurementToDeleteIsOneToFive) {
    create();
    for (const int number : {0, 6, -1, std::numeric_limits<int>::max()}) {
        log_.clear();
        EXPECT_EQ(error_of("deleteMeasurement", number), bad_number) << number;
        EXPECT_TRUE(has_logged(3, "msg: Invalid measurement data"));
    }
    EXPECT_EQ(test::conversion_error_of([&] { run("deleteMeasurement", "true"); }),
              "expected int, found bool");
}

// --- ghosts and the link ---

TEST_F(Otdr, EchoesAreMarkedWhereTheLengthIsNotKnown) {
    create();
    measure({1000, 2000, 3000});
    EXPECT_EQ(measurement(1), measured(0, false, "1000,2000,3000", "false,true,true"));
}

TEST_F(Otdr, WhatLiesBeyondTheEndIsMarkedWhereTheLinkIsUp) {
    create();
    set_link("up", 10.0F);
    measure({10'401, 900, 10'400});
    EXPECT_EQ(measurement(1), measured(10'000, true, "10401,900,10400", "false,false,true"));
    measure({3000, 10'400});
    EXPECT_EQ(measurement(2), measured(10'000, true, "3000,10400", "false,false"));
    measure({3000, 10'401});
    EXPECT_EQ(measurement(3), measured(10'000, true, "3000,10401", "false,true"));
    EXPECT_EQ(value_of("otdr/data/oscFiberlength"), "10.0");
}

TEST_F(Otdr, FiberOfFourHundredMetresHasNoEnd) {
    create();
    set_link("up", 0.4F);
    measure({1000, 50'000});
    EXPECT_EQ(measurement(1), measured(400, true, "1000,50000", "false,false"));
}

TEST_F(Otdr, LengthIsTruncatedToMetresAsASingleFloat) {
    create();
    set_link("up", 21.5009F);
    measure({});
    EXPECT_EQ(measurement(1), measured(21'500, true, "", ""));
    set_link("up", 13.007F);  // as doubles 13006.99997 m
    measure({});
    EXPECT_EQ(measurement(2), measured(13'007, true, "", ""));
}

TEST_F(Otdr, LengthThatIsNoneIsTakenToTheNearestEnd) {
    create();
    set_link("up", -3.0F);
    measure({});
    EXPECT_EQ(measurement(1), measured(0, true, "", ""));
    set_link("up", 1e30F);
    measure({});
    EXPECT_EQ(measurement(2), measured(0xffff'ffffU, true, "", ""));
}

TEST_F(Otdr, LinkThatIsNotUpIsAPassWithoutALength) {
    create();
    set_link("up", 10.0F);
    measure({3000, 15'000});
    EXPECT_EQ(measurement(1), measured(10'000, true, "3000,15000", "false,true"));
    set_link("down", 10.0F);
    measure({3000, 15'000});
    EXPECT_EQ(measurement(2), measured(0, false, "3000,15000", "false,false"));
    EXPECT_EQ(value_of("otdr/data/oscFiberlength"), "0.0");
    // No length of before is used by what follows either.
    osc_.set_error("data/linkStatus", -5, "bus error");
    measure({3000, 15'000});
    EXPECT_EQ(measurement(3), measured(0, false, "3000,15000", "false,false"));
}

TEST_F(Otdr, LinkThatCannotBeAskedLeavesTheLengthOfBeforeInForce) {
    create();
    set_link("up", 10.0F);
    measure({3000});
    osc_.set_error("data/linkStatus", -5, "bus error");
    measure({3000, 15'000});
    EXPECT_EQ(measurement(2), measured(0, false, "3000,15000", "false,true"));
    EXPECT_TRUE(has_logged(3, "msg: Caught OSC dh client exception: bus error"));
    EXPECT_EQ(value_of("otdr/data/oscFiberlength"), "10.0");
}

TEST_F(Otdr, LengthThatCannotBeReadLeavesTheRecordWithoutALink) {
    create();
    set_link("up", 10.0F);
    measure({3000});
    osc_.set("data/fiberLength", "long");
    measure({3000, 15'000});
    EXPECT_EQ(measurement(2), measured(0, false, "3000,15000", "false,true"));
}

TEST_F(Otdr, LinkPulledDuringAMeasurementIsNotUp) {
    create();
    set_link("up", 10.0F);
    report({3000, 15'000});
    sfp_.on_request([&](const std::string& request) {
        if (request.starts_with("write"))
            osc_.set("data/linkStatus", "down");
    });
    run("measure", "true");
    sfp_.on_request({});
    EXPECT_EQ(measurement(1), measured(0, false, "3000,15000", "false,false"));
}

// --- the reference point ---

TEST_F(Otdr, SavedMeasurementIsTheReferencePointAndAFile) {
    create();
    set_link("up", 21.5F);
    measure({1000});
    measure({1000, 2000, 20'500});
    EXPECT_EQ(run("saveRefpoint", "2"), R"({"value":true})");
    const std::string expected = measured(21'500, true, "1000,2000,20500", "false,true,false");
    EXPECT_EQ(refpoint(), expected);
    EXPECT_EQ(stored(), expected + "\n");
}

TEST_F(Otdr, ReferencePointOutlivesTheMeasurementItWas) {
    create();
    measure({1000});
    const std::string saved = measurement(1);
    run("saveRefpoint", "1");
    run("deleteMeasurement", "1");
    EXPECT_EQ(refpoint(), saved);
}

TEST_F(Otdr, EmptySlotIsNotSavedAndTheOldReferencePointStays) {
    create();
    measure({1000});
    run("saveRefpoint", "1");
    const std::string before = refpoint();
    EXPECT_EQ(error_of("saveRefpoint", 2), (test::error{-22, "No data available for OTDR serie."}));
    EXPECT_TRUE(has_logged(3, "msg: Invalid measurement data."));
    EXPECT_EQ(refpoint(), before);
    EXPECT_EQ(stored(), before + "\n");
}

TEST_F(Otdr, NumberOfAMeasurementToSaveIsOneToFive) {
    create();
    for (const int number : {0, 6, -7}) {
        EXPECT_EQ(error_of("saveRefpoint", number), bad_number);
        EXPECT_TRUE(has_logged(3, fmt::format("msg: Invalid measurement number: {}", number)));
    }
}

TEST_F(Otdr, DeletedReferencePointLeavesAnInvalidRecordInTheFile) {
    create();
    measure({1000});
    run("saveRefpoint", "1");
    EXPECT_EQ(run("deleteRefpoint", "false"), R"({"value":true})");
    EXPECT_EQ(refpoint(), empty_measurement);
    EXPECT_EQ(stored(), std::string(empty_measurement) + "\n");
}

TEST_F(Otdr, DeletingWhereThereIsNoFileWritesOne) {
    create();
    EXPECT_EQ(run("deleteRefpoint", "true"), R"({"value":true})");
    EXPECT_EQ(stored(), std::string(empty_measurement) + "\n");
}

TEST_F(Otdr, ReferencePointThatCouldNotBeWrittenIsInForceAllTheSame) {
    create();
    measure({1000});
    std::filesystem::create_symlink("/dev/full", test::root() + refpoint_file);
    EXPECT_EQ(run("saveRefpoint", "1"), R"({"value":false})");
    EXPECT_TRUE(has_logged(3, "msg: Error writting refpoint save file."));
    EXPECT_EQ(refpoint(), measured(0, false, "1000", "false"));
    EXPECT_EQ(run("deleteRefpoint", "true"), R"({"value":true})");
    EXPECT_EQ(refpoint(), empty_measurement);
}

TEST_F(Otdr, StoredReferencePointIsReadAtTheStart) {
    const std::string saved = measured(21'500, true, "1000,2000", "false,true");
    test::put_file(refpoint_file, saved + "\n");
    create();
    EXPECT_EQ(refpoint(), saved);
    EXPECT_EQ(value_of("otdr/data/oscFiberlength"), "21.5");
    // Its length stands until a pass gives another.
    osc_.set_error("data/linkStatus", -5, "bus error");
    measure({1000, 30'000});
    EXPECT_EQ(measurement(1), measured(0, false, "1000,30000", "false,true"));
}

TEST_F(Otdr, ReferencePointIsReadAnewWithEachReturnOfTheHandler) {
    create();
    measure({1000});
    run("saveRefpoint", "1");
    const std::string saved = refpoint();
    lose_handler();
    return_handler();
    EXPECT_EQ(refpoint(), saved);
    EXPECT_EQ(measurement(1), empty_measurement);
}

TEST_F(Otdr, FileWithFewerDistancesThanItsCountIsTakenAsItIs) {
    test::put_file(refpoint_file,
                   R"({"valid":true,"timestamp":1,"numOfReflections":3,"oscFiberlength":9,)"
                   R"("oscLinkUp":false,"distances":[70],"ghosts":[false,true]})");
    create();
    EXPECT_EQ(refpoint(), R"({"valid":true,"timestamp":1,"numOfReflections":3,"oscFiberlength":9,)"
                          R"("oscLinkUp":false,"distances":[70,0,0],"ghosts":[false,true,false]})");
}

TEST_F(Otdr, BadFileCostsTheReferencePointOnly) {
    test::put_file(refpoint_file, R"({"valid":true,"timestamp":-1})");
    create();
    expect_available();
    EXPECT_EQ(refpoint(), empty_measurement);
    EXPECT_TRUE(has_logged(3, R"(msg: Invalid parameters: {"valid":true,"timestamp":-1})"));
    measure({1000});
    EXPECT_EQ(run("saveRefpoint", "1"), R"({"value":true})");
}

TEST_F(Otdr, SavingAndDeletingAtOnceLeavesTheFileAsTheReferencePoint) {
    create();
    measure(distances(15, 100'000));
    for (int round = 0; round < 200; ++round) {
        auto saving = std::async(std::launch::async, [&] { otdr_->set_save_refpoint(1); });
        otdr_->set_delete_refpoint(true);
        saving.get();
        ASSERT_EQ(stored(), refpoint() + "\n") << "in round " << round;
    }
}

}  // namespace
