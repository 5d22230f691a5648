// The line monitor over handlers made in the test, and with a far end.
#include "client_recorders.hpp"
#include "cloopl.hpp"
#include "eventually.hpp"
#include "far_end.hpp"
#include "gated_time.hpp"
#include "log_capture.hpp"
#include "node_access.hpp"
#include "redis_server.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace {

using test::eventually;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string line = "interface/line/1/data/";
const std::string rx_power = line + "osc/rx/power";
const std::string tx_power = line + "osc/tx/power";
const std::string length = line + "length";
const std::string present = "cloopl/interface/2/present";
const std::string channel = "tm_velt_cloopl";

// What a function throws, as "CODE TEXT".
template <class Function>
std::string error_of(const Function& function) {
    try {
        function();
    } catch (const dh_error& error) {
        return std::to_string(error.code) + " " + error.message;
    }
    return {};
}

class LineMonitor : public testing::Test {
  protected:
    LineMonitor() {
        test::empty_root();
        osc_.emplace("/tmp/device_handlers/osc2");
        sfp_.emplace("/tmp/device_handlers/sfp/1");
        system_info_.emplace("/tmp/device_handlers/system_info");
        server_.emplace("test", test::root() + "/tmp/server");
        proxy_ = std::make_shared<dh::util::proxy>(server_->db(), &main_mutex_);
        monitor_ = cloopl::create(2, proxy_, connections_, client_of("osc2"), client_of("sfp/1"));
        time_.open();
    }

    // A tick that is under way may be the last to let go of the monitor, and
    // must not be the last to let go of the group that it belongs to.
    ~LineMonitor() override {
        monitor_.reset();
        eventually([this] { return proxy_.use_count() == 1; });
    }

    static std::shared_ptr<device_handler_client> client_of(const std::string& socket) {
        return device_handler_client::create("/tmp/device_handlers/" + socket, socket, {});
    }

    template <class T>
    std::optional<T> status_at(const std::string& path) const {
        const auto node = proxy_->get_path_node<dh::api::status_value<T>>(path);
        return node ? std::optional<T>((*node)->latest()) : std::nullopt;
    }

    // As the supervisory channel's handler would: its figures, then its link.
    void measure(float span_length) {
        osc_->set("data/fiberLength", span_length);
        osc_->set("data/fiberDispersion", 340.0F);
        osc_->set("data/debug/state", "ready");
        osc_->set("data/linkStatus", "down");
        monitor_->on_connect_osc();
        ASSERT_TRUE(eventually([&] { return error_of([&] { span_length_of(); }).empty(); }));
    }
    float span_length_of() {
        using node = dh::util::mirror_node<float>::type;
        return proxy_->get_path_node<node>(length).value()->value();
    }

    void put_transceiver(float transmitted, float received) {
        sfp_->set("present", true);
        sfp_->set("data/txPower", transmitted);
        sfp_->set("data/rxPower", received);
        monitor_->on_connect_sfp();
        ASSERT_TRUE(eventually([this] { return status_at<bool>(present) == true; }));
    }

    // The link comes up, with this neighbour.
    void link_up(const std::string& neighbour) {
        osc_->set("data/neighbour", neighbour);
        const std::size_t before = link_events();
        osc_->set("data/linkStatus", "up");
        ASSERT_TRUE(eventually([&] { return link_events() > before; }));
    }

    // Whatever the events so far and the ticks bring about has been done then.
    void let_events_and_ticks_go_by() {
        const float other = span_length_of() + 1.0F;
        osc_->set("data/fiberLength", other);
        ASSERT_TRUE(eventually([&] { return span_length_of() == other; }));
        const std::size_t before = ticks();
        ASSERT_TRUE(eventually([&] { return ticks() >= before + 3; }));
    }
    // Each asks for the names of both interfaces, which the handler cannot tell.
    std::size_t ticks() const { return system_info_->requests().size() / 2; }

    std::size_t link_events() const {
        const auto texts = log_.texts();
        return static_cast<std::size_t>(std::count_if(
            texts.begin(), texts.end(),
            [](const std::string& text) { return text.starts_with("msg: OSC event link: "); }));
    }

    bool is_connected() const { return far_end_error().empty(); }
    std::string far_end_error() const {
        return error_of([this] { monitor_->get_linetx_remote_rx_power(); });
    }
    bool has_lost_the_far_end() const { return far_end_error().starts_with("11 "); }

    std::ptrdiff_t reads_of_the_neighbour() const {
        const auto requests = osc_->requests();
        return std::count(requests.begin(), requests.end(), "read data/neighbour");
    }

    std::vector<std::string> own_lines(int severity) const {
        std::vector<std::string> texts;
        for (const test::log_line& each : log_.lines())
            if (each.channel == channel && each.severity == severity)
                texts.push_back(each.text);
        return texts;
    }

    test::gated_time time_;
    test::log_capture log_;
    std::optional<test::scripted_handler> osc_;
    std::optional<test::scripted_handler> sfp_;
    std::optional<test::scripted_handler> system_info_;
    std::optional<dh_server> server_;
    std::mutex main_mutex_;
    const std::shared_ptr<test::recording_connection> connections_ =
        std::make_shared<test::recording_connection>();
    std::shared_ptr<dh::util::proxy> proxy_;
    std::shared_ptr<cloopl> monitor_;
};

}  // namespace

// --- what it is made of ---

TEST_F(LineMonitor, ClientOfTheSystemInformationIsSupervised) {
    ASSERT_EQ(proxy_->clients.size(), 1U);
    EXPECT_EQ(proxy_->clients.front()->name(), "system info");
    EXPECT_TRUE(eventually([this] { return connections_->has("established system info"); }));
}

TEST_F(LineMonitor, NodesStandBeforeTheFirstEvent) {
    for (const char* path :
         {"osc/attenuation", "osc/loss", "hostname", "osc/rx/interfaceName", "osc/tx/interfaceName",
          "remoteDispersion", "osc/remoteLoss", "osc/remoteAttenuation", "remoteLength",
          "osc/rx/remotePower", "osc/tx/remotePower", "remoteHostname",
          "osc/rx/remoteInterfaceName", "osc/tx/remoteInterfaceName"})
        EXPECT_TRUE(server_->db().contains(line + path)) << path;
    for (const char* path :
         {"length", "dispersion", "osc/linkStatus", "osc/state", "osc/rx/power", "osc/tx/power"})
        EXPECT_FALSE(server_->db().contains(line + path)) << path;
}

TEST_F(LineMonitor, FiguresHaveLimitsAndTextsHaveNone) {
    const auto filter_of = [this](const std::string& path) {
        const json::document info = test::parsed(test::info(*server_->db().find_leaf_node(path)));
        return json::to_text(info["hysteresis"]);
    };
    for (const char* path :
         {"osc/attenuation", "osc/loss", "remoteDispersion", "osc/remoteLoss",
          "osc/remoteAttenuation", "remoteLength", "osc/rx/remotePower", "osc/tx/remotePower"})
        EXPECT_EQ(filter_of(line + path),
                  R"({"function":"default","ImmediateLimit":"0.09","delayedLimit":"0.05",)"
                  R"("delayCycles":10,"pollInterval":1000})")
            << path;
    for (const char* path :
         {"hostname", "osc/rx/interfaceName", "osc/tx/interfaceName", "remoteHostname",
          "osc/rx/remoteInterfaceName", "osc/tx/remoteInterfaceName"})
        EXPECT_EQ(filter_of(line + path), R"({"function":"equal","pollInterval":1000})") << path;
}

TEST_F(LineMonitor, PathsOfTheLineAreKeptOutOfMirrors) {
    for (const std::string& path :
         {line + "dispersion", line + "osc/loss", length, line + "osc/linkStatus",
          line + "osc/state", rx_power, tx_power, present})
        EXPECT_TRUE(proxy_->is_excluded(path)) << path;
    EXPECT_FALSE(proxy_->is_excluded(line + "osc/attenuation"));
}

TEST_F(LineMonitor, EndIsLogged) {
    monitor_.reset();
    EXPECT_TRUE(eventually([this] {
        return own_lines(6) == std::vector<std::string>{"msg: Device handler destroyed."};
    }));
}

TEST_F(LineMonitor, PolledFiguresOfAMissingFarEndAreErrorsInTheTree) {
    const auto client = device_handler_client::create("/tmp/server", "reader", {});
    for (const auto& [path, source] :
         {std::pair("osc/remoteLoss", "osc/loss"), std::pair("osc/loss", "osc/rx/power"),
          std::pair("remoteHostname", "hostname")}) {
        const std::string expected = "11 subordinate device handler not available:" + line + source;
        const auto error = [&] {
            try {
                client->get<float>(line + path);
            } catch (const dh_client_exception& failure) {
                return std::to_string(failure.code) + " " + failure.message;
            }
            return std::string();
        };
        EXPECT_TRUE(eventually([&] { return error() == expected; })) << path << " " << error();
    }
}

// --- this end ---

TEST_F(LineMonitor, AttenuationWithoutALengthIsAnError) {
    EXPECT_EQ(error_of([this] { monitor_->get_local_attenuation(); }),
              "-14 Failed to get local_fiber_length");
}

TEST_F(LineMonitor, AttenuationOfALengthThatWasNeverMeasuredIsAnError) {
    osc_->set("data/linkStatus", "down");
    monitor_->on_connect_osc();
    EXPECT_EQ(error_of([this] { monitor_->get_local_attenuation(); }),
              "-61 Value has not been set");
}

TEST_F(LineMonitor, SpanOfAKilometreOrLessHasNoAttenuationWhateverTheFarEnd) {
    measure(1.0F);
    EXPECT_EQ(monitor_->get_local_attenuation(), 0.0F);
    osc_->set("data/fiberLength", 0.0F);
    ASSERT_TRUE(eventually([this] { return span_length_of() == 0.0F; }));
    EXPECT_EQ(monitor_->get_local_attenuation(), 0.0F);
    EXPECT_THAT(own_lines(3), IsEmpty());
}

TEST_F(LineMonitor, AttenuationOfALongerSpanNeedsTheFarEnd) {
    measure(1.0000001F);
    EXPECT_EQ(error_of([this] { monitor_->get_local_attenuation(); }),
              "11 subordinate device handler not available:" + rx_power);
}

TEST_F(LineMonitor, LossAsksTheFarEndFirst) {
    EXPECT_EQ(error_of([this] { monitor_->get_local_loss(); }),
              "11 subordinate device handler not available:" + rx_power);
}

TEST_F(LineMonitor, InterfaceNamesAreReadOnceAndStay) {
    system_info_->set("data/locationIndex", "1");
    EXPECT_EQ(monitor_->get_local_rx_name(), "if-1/1/2-rx");
    EXPECT_EQ(monitor_->get_local_tx_name(), "if-1/1/2-tx");
    system_info_->set("data/locationIndex", "2");
    EXPECT_EQ(monitor_->get_local_rx_name(), "if-1/1/2-rx");
    EXPECT_EQ(monitor_->get_local_tx_name(), "if-1/1/2-tx");
}

TEST_F(LineMonitor, InterfaceNameThatCannotBeReadIsReadAgain) {
    EXPECT_THROW(monitor_->get_local_rx_name(), dh_client_exception);
    system_info_->set("data/locationIndex", "1");
    EXPECT_EQ(monitor_->get_local_rx_name(), "if-1/1/2-rx");
}

TEST_F(LineMonitor, InterfaceNameThatCannotBeReadIsAnUnknownErrorInTheTree) {
    const auto client = device_handler_client::create("/tmp/server", "reader", {});
    const auto text = [&]() -> std::string {
        try {
            return client->get<std::string>(line + "osc/rx/interfaceName");
        } catch (const dh_client_exception& error) {
            return std::to_string(error.code) + " " + error.message;
        }
    };
    EXPECT_TRUE(eventually([&] { return text() == "-1 Unknown error!"; })) << text();
    system_info_->set("data/locationIndex", "1");
    EXPECT_TRUE(eventually([&] { return text() == "if-1/1/2-rx"; })) << text();
}

TEST_F(LineMonitor, HostnameIsThatOfTheStoreAndEmptyWithoutOne) {
    EXPECT_EQ(monitor_->get_local_hostname(), "");
    test::redis_server store;
    EXPECT_EQ(monitor_->get_local_hostname(), "");
    store.set("/v1/rows/system/settings/config/hostname", "card-17");
    EXPECT_EQ(monitor_->get_local_hostname(), "card-17");
}

// --- the supervisory channel's handler ---

TEST_F(LineMonitor, SupervisoryChannelIsSubscribedOncePerConnection) {
    const std::string subscribed = "msg: Event subscribe_osc_paths on osc/2";
    measure(20.0F);
    EXPECT_TRUE(
        eventually([this] { return status_at<std::string>(line + "osc/state") == "ready"; }));
    monitor_->on_connect_osc();
    EXPECT_EQ(log_.count(subscribed), 1U);
    monitor_->on_disconnect_osc();
    EXPECT_EQ(log_.count(subscribed), 1U);
    monitor_->on_connect_osc();
    EXPECT_EQ(log_.count(subscribed), 2U);
    osc_->set("data/fiberLength", 21.0F);
    EXPECT_TRUE(eventually([this] { return span_length_of() == 21.0F; }));
}

TEST_F(LineMonitor, LinkThatIsNotReadyAsksForNoNeighbour) {
    measure(20.0F);
    osc_->set("data/debug/state", "booting");
    ASSERT_TRUE(
        eventually([this] { return status_at<std::string>(line + "osc/state") == "booting"; }));
    link_up(test::far_end::address);
    EXPECT_THAT(own_lines(6), Contains("msg: OSC event link: up, state: booting"));
    let_events_and_ticks_go_by();
    EXPECT_EQ(reads_of_the_neighbour(), 0);
    EXPECT_TRUE(has_lost_the_far_end());
}

TEST_F(LineMonitor, EventBeforeTheOtherNodeIsThereSeesAnEmptyText) {
    osc_->set("data/linkStatus", "up");
    monitor_->on_connect_osc();
    EXPECT_TRUE(eventually([this] { return log_.count("msg: OSC event link: up, state: ") == 1; }));
}

TEST_F(LineMonitor, NeighbourThatIsUnknownIsAskedForAtTheNextEventOnly) {
    measure(20.0F);
    link_up("");
    ASSERT_TRUE(
        eventually([this] { return log_.count("msg: Neighbour address not ready.") == 1; }));
    EXPECT_THAT(own_lines(8), Contains("msg: Neighbour address not ready."));
    test::far_end distant;
    distant.publish(rx_power, -7.5F);
    osc_->set("data/neighbour", test::far_end::address);
    let_events_and_ticks_go_by();
    EXPECT_TRUE(has_lost_the_far_end());
    EXPECT_EQ(reads_of_the_neighbour(), 1);
    osc_->set("data/debug/state", "busy");
    osc_->set("data/debug/state", "ready");
    EXPECT_TRUE(eventually([this] { return is_connected(); }));
    EXPECT_EQ(reads_of_the_neighbour(), 2);
}

TEST_F(LineMonitor, NeighbourThatCannotBeReachedIsLoggedAndTriedAtTheNextEvent) {
    measure(20.0F);
    test::far_end nobody;
    nobody.stop();
    link_up(test::far_end::address);
    ASSERT_TRUE(eventually([this] { return !own_lines(3).empty(); }));
    EXPECT_THAT(own_lines(3).front(), StartsWith("msg: Caught exception: "));
    EXPECT_TRUE(has_lost_the_far_end());
}

TEST_F(LineMonitor, NeighbourWithoutAScopeIsItsOwnScope) {
    test::far_end distant;
    distant.publish(rx_power, -7.5F);
    measure(20.0F);
    link_up("::1");  // there is no interface of that name
    ASSERT_TRUE(eventually([this] { return !own_lines(3).empty(); }));
    EXPECT_TRUE(has_lost_the_far_end());
}

TEST_F(LineMonitor, NeighbourThatTheHandlerCannotTellIsLogged) {
    measure(20.0F);
    osc_->set_error("data/neighbour", -5, "stuck");
    osc_->set("data/linkStatus", "up");
    EXPECT_TRUE(eventually([this] {
        return own_lines(3) == std::vector<std::string>{"msg: Caught exception: stuck"};
    }));
}

// --- the far end ---

class LineWithFarEnd : public LineMonitor {
  protected:
    void SetUp() override {
        measure(20.0F);
        put_transceiver(2.25F, -6.0F);
        received_ = far_end_.publish(rx_power, -5.1F);
        link_up(test::far_end::address);
        ASSERT_TRUE(eventually([this] { return is_connected(); })) << far_end_error();
    }

    test::far_end far_end_;
    std::shared_ptr<dh::api::status_value<float>> received_;
};

TEST_F(LineWithFarEnd, LossIsWhatIsSentLessWhatIsReceivedThere) {
    EXPECT_EQ(monitor_->get_local_loss(), 2.25F - -5.1F);
    EXPECT_EQ(monitor_->get_local_attenuation(), (2.25F - -5.1F) / 20.0F);
    received_->set(-7.3F);
    EXPECT_EQ(monitor_->get_local_loss(), 2.25F - -7.3F);
}

TEST_F(LineWithFarEnd, EveryFigureOfTheFarEndIsItsOwnOne) {
    far_end_.publish(line + "dispersion", 341.0F);
    far_end_.publish(line + "osc/loss", 7.5F);
    far_end_.publish(line + "osc/attenuation", 0.25F);
    far_end_.publish(length, 20.5F);
    far_end_.publish(tx_power, 2.5F);
    far_end_.publish<std::string>(line + "hostname", "far");
    far_end_.publish<std::string>(line + "osc/rx/interfaceName", "if-1/2/2-rx");
    far_end_.publish<std::string>(line + "osc/tx/interfaceName", "if-1/2/2-tx");
    EXPECT_EQ(monitor_->get_linetx_remote_dispersion(), 341.0F);
    EXPECT_EQ(monitor_->get_linetx_remote_loss(), 7.5F);
    EXPECT_EQ(monitor_->get_linetx_remote_attenuation(), 0.25F);
    EXPECT_EQ(monitor_->get_linetx_remote_length(), 20.5F);
    EXPECT_EQ(monitor_->get_linetx_remote_rx_power(), -5.1F);
    EXPECT_EQ(monitor_->get_linetx_remote_tx_power(), 2.5F);
    EXPECT_EQ(monitor_->get_remote_hostname(), "far");
    EXPECT_EQ(monitor_->get_linetx_remote_rx_name(), "if-1/2/2-rx");
    EXPECT_EQ(monitor_->get_linetx_remote_tx_name(), "if-1/2/2-tx");
    EXPECT_THAT(own_lines(8), Contains("msg: Fetching " + line +
                                       "hostname from remote line control loop, device handler "
                                       "returns: far"));
}

TEST_F(LineWithFarEnd, FigureThatTheFarEndDoesNotHaveIsItsError) {
    EXPECT_EQ(error_of([this] { monitor_->get_linetx_remote_tx_power(); }),
              "-2 No such path: " + tx_power);
    EXPECT_THAT(own_lines(3),
                Contains("msg: Unable to determine: " + tx_power + " - No such path: " + tx_power +
                         " [-2], devicehandler: remote line control loop"));
}

TEST_F(LineWithFarEnd, SentPowerThatNobodyMeasuredIsAnError) {
    monitor_.reset();
    eventually([this] { return proxy_.use_count() == 1; });
    // Another one, whose transceiver's handler never came.
    proxy_ = std::make_shared<dh::util::proxy>(server_->db(), &main_mutex_);
    dh_server server("bare", test::root() + "/tmp/bare");
    proxy_ = std::make_shared<dh::util::proxy>(server.db(), &main_mutex_);
    monitor_ = cloopl::create(2, proxy_, nullptr, client_of("osc2"), client_of("sfp/1"));
    monitor_->on_connect_osc();
    ASSERT_TRUE(eventually([this] { return is_connected(); }));
    EXPECT_EQ(error_of([this] { monitor_->get_local_loss(); }), "-14 Failed to get local_tx_power");
    monitor_.reset();
    eventually([this] { return proxy_.use_count() == 1; });
    proxy_.reset();
}

TEST_F(LineWithFarEnd, LinkThatIsSeenUpTwiceIsOneConnection) {
    const std::size_t before = link_events();
    osc_->stop();
    osc_->start();
    monitor_->on_disconnect_osc();
    monitor_->on_connect_osc();  // all that is subscribed tells its value again
    // The second line comes after all that the first event has brought about.
    ASSERT_TRUE(eventually([&] { return link_events() >= before + 2; }));
    EXPECT_TRUE(is_connected());
    EXPECT_EQ(reads_of_the_neighbour(), 1);
}

TEST_F(LineWithFarEnd, StateThatIsNoLongerReadyEndsTheConnectionThoughTheLinkIsUp) {
    osc_->set("data/debug/state", "busy");
    EXPECT_TRUE(eventually([this] { return has_lost_the_far_end(); }));
    osc_->set("data/debug/state", "ready");
    EXPECT_TRUE(eventually([this] { return is_connected(); }));
    EXPECT_EQ(reads_of_the_neighbour(), 2);
}

TEST_F(LineWithFarEnd, CutAndRepairedLinkIsConnectedAnew) {
    osc_->set("data/linkStatus", "down");
    EXPECT_TRUE(eventually([this] { return has_lost_the_far_end(); }));
    osc_->set("data/linkStatus", "up");
    EXPECT_TRUE(eventually([this] { return is_connected(); }));
}

TEST_F(LineWithFarEnd, FarEndThatDiesFailsReadsWithTheClientsCodesAndComesBackByItself) {
    received_.reset();
    far_end_.stop();
    ASSERT_TRUE(eventually([this] { return !is_connected(); }));
    EXPECT_THAT(far_end_error(), testing::AnyOf(StartsWith("104 "), StartsWith("107 ")));
    far_end_.start();
    far_end_.publish(rx_power, -8.0F);
    EXPECT_TRUE(eventually([this] { return is_connected(); }));
    EXPECT_EQ(monitor_->get_linetx_remote_rx_power(), -8.0F);
    EXPECT_EQ(reads_of_the_neighbour(), 1);
    EXPECT_EQ(link_events(), 3U);  // the two first values, and the link up
}

TEST_F(LineWithFarEnd, SmallMoveOfARemotePowerIsNotPublished) {
    const auto client = device_handler_client::create("/tmp/server", "reader", {});
    const std::string path = line + "osc/rx/remotePower";
    const auto shown = [&] { return client->get<float>(path, 0.0F); };
    ASSERT_TRUE(eventually([&] { return shown() == -5.1F; }));
    received_->set(-5.14F);
    const auto fetched = "msg: Fetching " + rx_power +
                         " from remote line control loop, device handler returns: -5.14";
    ASSERT_TRUE(eventually([&] { return log_.count(fetched) >= 4; }));
    EXPECT_EQ(shown(), -5.1F);
    received_->set(-5.2F);
    EXPECT_TRUE(eventually([&] { return shown() == -5.2F; }));
}

// --- the transceiver's handler ---

class LineTransceiver : public LineMonitor {
  protected:
    void SetUp() override { put_transceiver(2.25F, -6.0F); }

    float power_at(const std::string& path) const {
        using node = dh::util::mirror_node<float>::type;
        try {
            return proxy_->get_path_node<node>(path).value()->value();
        } catch (const dh_error&) {
            return 0.0F;
        }
    }

    const std::string subscribed_ = "msg: Event subscribe_sfp_paths on sfp/2";
    const std::string inserted_ = "msg: sfp/2 was inserted.";
    const std::string removed_ = "msg: sfp/2 was removed.";
};

TEST_F(LineTransceiver, IsWaitedForUntilItHasSettled) {
    using std::chrono_literals::operator""s;
    EXPECT_THAT(time_.sleeps(), ElementsAre(3s));
    monitor_->on_connect_sfp();
    EXPECT_THAT(time_.sleeps(), ElementsAre(3s));
    monitor_->on_disconnect_sfp();
    monitor_->on_connect_sfp();
    EXPECT_THAT(time_.sleeps(), ElementsAre(3s, 3s));
}

TEST_F(LineTransceiver, ThatIsThereAtTheStartIsNotInserted) {
    EXPECT_TRUE(
        eventually([this] { return power_at(tx_power) == 2.25F && power_at(rx_power) == -6.0F; }));
    EXPECT_EQ(own_lines(6), std::vector<std::string>{subscribed_});
}

TEST_F(LineTransceiver, PulledAndPutBackIsToldAndSubscribedAgain) {
    sfp_->set("present", false);
    ASSERT_TRUE(eventually([this] { return log_.count(removed_) == 1; }));
    EXPECT_EQ(log_.count(subscribed_), 1U);
    sfp_->set("present", true);
    ASSERT_TRUE(eventually([this] { return log_.count(inserted_) == 1; }));
    EXPECT_TRUE(eventually([this] { return log_.count(subscribed_) == 2; }));
    sfp_->set("data/txPower", 1.5F);
    EXPECT_TRUE(eventually([this] { return power_at(tx_power) == 1.5F; }));
}

TEST_F(LineTransceiver, ThatIsMissingAtTheStartCountsAsRemoved) {
    sfp_->set("present", false);
    EXPECT_TRUE(eventually([this] { return log_.count(removed_) == 1; }));
    EXPECT_EQ(status_at<bool>(present), false);
}

TEST_F(LineTransceiver, RestartOfItsHandlerIsNeitherRemovalNorInsertion) {
    sfp_->stop();
    monitor_->on_disconnect_sfp();
    EXPECT_EQ(status_at<bool>(present), false);
    sfp_->start();
    monitor_->on_connect_sfp();
    EXPECT_TRUE(eventually([this] { return status_at<bool>(present) == true; }));
    sfp_->set("data/rxPower", -9.0F);
    EXPECT_TRUE(eventually([this] { return power_at(rx_power) == -9.0F; }));
    EXPECT_THAT(own_lines(6), ElementsAre(subscribed_, subscribed_));
}

TEST_F(LineMonitor, TransceiverThatWasNeverThereIsRemovedAtItsFirstEvent) {
    sfp_->set("present", false);
    monitor_->on_connect_sfp();
    EXPECT_TRUE(eventually([this] { return log_.count("msg: sfp/2 was removed.") == 1; }));
    EXPECT_EQ(log_.count("msg: sfp/2 was inserted."), 0U);
}

TEST_F(LineMonitor, TransceiverIsSubscribedOnlyAfterItsHandlerHasSettled) {
    sfp_->set("present", true);
    time_.close();
    auto connecting = std::async(std::launch::async, [this] { monitor_->on_connect_sfp(); });
    ASSERT_TRUE(time_.comes_to_rest());
    EXPECT_THAT(sfp_->requests(), IsEmpty());
    EXPECT_EQ(log_.count("msg: Event subscribe_sfp_paths on sfp/2"), 0U);
    time_.open();
    connecting.get();
    EXPECT_TRUE(eventually([this] { return status_at<bool>(present) == true; }));
}

TEST_F(LineMonitor, LossOfATransceiversHandlerThatNeverCameChangesNothing) {
    monitor_->on_disconnect_sfp();
    monitor_->on_sfp_present_state_change();
    EXPECT_FALSE(status_at<bool>(present).has_value());
    EXPECT_THAT(own_lines(6), Not(Contains("msg: sfp/2 was removed.")));
}
