// Two whole cards facing each other over a fibre span, each the other's far
// end: daemons and simulated cards as processes, each in a network of its own.
#include "daemon_fixture.hpp"
#include "network_namespace.hpp"
#include "process_holdings.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

using test::eventually;
using test::network_namespace;

namespace {

constexpr const char* time_scale = "20";
constexpr const char* interface = "eth_sfp_2";

const std::string line_path = "interface/line/1/data/";

unsigned link_flaps() {
    return static_cast<unsigned>(std::stoul(host::environment("VELT_LINK_FLAPS", "200")));
}

// A card with its daemon, its simulated handlers and its network.
class card_end {
  public:
    card_end(std::string root, std::string address)
        : root_(std::move(root)), address_(std::move(address)) {
        std::filesystem::create_directories(test::root() + root_);
    }

    const network_namespace& network() const { return network_; }
    std::string address() const { return address_ + "%" + interface; }

    void bring_up() const {
        network_.bring_up("lo");
        network_.bring_up(interface);
        network_.run("ip -6 address add " + address_ + "/64 dev " + interface + " nodad");
    }

    void simulate(const card_end& far) {
        simulator_.emplace(VELT_BIN_DIR "/card_simulator",
                           std::vector<std::string>{"--card", "k47", "--root", test::root() + root_,
                                                    "--line-to", far.root_},
                           surroundings(test::root()), test::root());
        hands_ = client_of("/tmp/device_handlers/sim");
        ASSERT_TRUE(
            eventually([this] { return simulator_->has_logged("msg: Card k47 is served"); }));
    }

    void start_daemon() {
        management_.reset();
        daemon_.reset();
        daemon_.emplace(network_namespace::entering_program,
                        network_.entering(VELT_BIN_DIR "/traffic_manager", {}),
                        surroundings(test::root() + root_), test::root());
        ASSERT_TRUE(eventually([this] { return listens_to_far_end(); }));
        management_ = client_of("/tmp/device_managers/traffic_manager");
    }
    void kill_daemon() { daemon_.reset(); }
    const test::process& daemon() const { return *daemon_; }

    template <class T>
    void turn(const std::string& path, T value) const {
        hands_->set<void>("sim/" + path, value);
    }

    // What the daemon publishes of the line; "CODE TEXT" of an error.
    std::variant<float, std::string> figure_at(const std::string& path) const {
        try {
            return management_->get<float>(line_path + path);
        } catch (const dh_client_exception& error) {
            return std::to_string(error.code) + " " + error.message;
        }
    }
    bool shows_figure(const std::string& path, float wanted, float tolerance) const {
        const auto figure = figure_at(path);
        return std::holds_alternative<float>(figure) &&
               std::abs(std::get<float>(figure) - wanted) <= tolerance;
    }
    bool shows_error(const std::string& path, const std::string& beginning) const {
        const auto figure = figure_at(path);
        return std::holds_alternative<std::string>(figure) &&
               std::get<std::string>(figure).starts_with(beginning);
    }
    std::string text_shown(const std::string& path) const {
        try {
            return management_->get<std::string>(line_path + path);
        } catch (const dh_client_exception& error) {
            return error.message;
        }
    }

    // On its port 5100, as the kernel writes it.
    bool listens_to_far_end() const {
        test::process grep(
            network_namespace::entering_program,
            network_.entering("/bin/grep", {"-q", ":13EC 0*:0000 0A", "/proc/net/tcp6"}), {},
            test::root());
        return grep.end() == test::exited_with(0);
    }

    std::string log() const { return daemon_ ? daemon_->standard_error() : std::string(); }
    std::size_t times_logged(const std::string& text) const { return daemon_->times_logged(text); }

  private:
    static test::process::environment surroundings(const std::string& root) {
        return {{"VELT_ROOT", root}, {"VELT_TIME_SCALE", time_scale}, {"VELT_LOG_LEVEL", "6"}};
    }

    std::shared_ptr<device_handler_client> client_of(const std::string& socket) const {
        return device_handler_client::create(root_ + socket, "test", {});
    }

    const std::string root_;
    const std::string address_;
    network_namespace network_;
    std::optional<test::process> simulator_;
    std::optional<test::process> daemon_;
    std::shared_ptr<device_handler_client> hands_;
    std::shared_ptr<device_handler_client> management_;
};

class Line : public testing::Test {
  protected:
    Line() { test::empty_root(); }

    ~Line() override {
        if (HasFailure() && west_ && east_)
            std::cout << "--- west\n" << west_->log() << "--- east\n" << east_->log();
    }

    void SetUp() override {
        west_.emplace("/w", "fe80::a");
        east_.emplace("/e", "fe80::b");
        if (!west_->network().exists() || !east_->network().exists())
            GTEST_SKIP() << "no network namespaces here: " << west_->network().why_not();
        west_->network().run(std::string("ip link add ") + interface + " type veth peer name " +
                             interface + " netns " + east_->network().holder());
        west_->bring_up();
        east_->bring_up();
    }

    void simulate() {
        west_->simulate(*east_);
        east_->simulate(*west_);
        for (const auto& [end, far] : {std::pair(&*west_, &*east_), std::pair(&*east_, &*west_)}) {
            end->turn("osc/2/neighbour", far->address());
            end->turn("osc/2/linkStatus", std::string("down"));
        }
    }

    void start() {
        simulate();
        start_daemons();
    }

    // A link that comes up is used at once, and not tried again where nobody answers.
    void start_daemons() {
        west_->start_daemon();
        east_->start_daemon();
        west_->turn("osc/2/linkStatus", std::string("up"));
        east_->turn("osc/2/linkStatus", std::string("up"));
    }

    // Each end knows the loss of what it sends.
    void expect_losses(float eastward, float westward) {
        EXPECT_TRUE(eventually([&] { return west_->shows_figure("osc/loss", eastward, 0.01F); }));
        EXPECT_TRUE(eventually([&] { return east_->shows_figure("osc/loss", westward, 0.01F); }));
        EXPECT_TRUE(
            eventually([&] { return west_->shows_figure("osc/remoteLoss", westward, 0.01F); }));
        EXPECT_TRUE(
            eventually([&] { return east_->shows_figure("osc/remoteLoss", eastward, 0.01F); }));
    }

    static bool is_cut_off(const card_end& end) {
        return end.shows_error("osc/loss", "11 subordinate device handler not available:");
    }

    static constexpr float first_loss = 10.0F;  // fibre and connectors, dB

    std::optional<card_end> west_;
    std::optional<card_end> east_;
};

}  // namespace

TEST_F(Line, LossAndAttenuationAreThoseOfTheSpanAtBothEnds) {
    simulate();
    // Each end has the fibre on which its light comes in.
    for (const auto& [end, loss, connectors] :
         {std::tuple(&*west_, 7.25F, 0.5F), std::tuple(&*east_, 12.5F, 1.23F)}) {
        end->turn("line/fibreLoss", loss);
        end->turn("line/connectorLoss", connectors);
        end->turn("osc/2/length", 40.0F);
        end->turn("osc/2/dispersion", 680.0F);
    }
    west_->turn("interface/2/txPower", 2.75F);
    start_daemons();
    expect_losses(13.73F, 7.75F);
    EXPECT_TRUE(eventually(
        [this] { return west_->shows_figure("osc/attenuation", 13.73F / 40.0F, 0.001F); }));
    EXPECT_TRUE(eventually(
        [this] { return east_->shows_figure("osc/attenuation", 7.75F / 40.0F, 0.001F); }));
    EXPECT_TRUE(eventually(
        [this] { return east_->shows_figure("osc/remoteAttenuation", 13.73F / 40.0F, 0.001F); }));
    EXPECT_TRUE(eventually([this] { return east_->shows_figure("remoteLength", 40.0F, 0.0F); }));
    EXPECT_TRUE(
        eventually([this] { return west_->shows_figure("remoteDispersion", 680.0F, 0.0F); }));
    EXPECT_TRUE(
        eventually([this] { return east_->shows_figure("osc/tx/remotePower", 2.75F, 0.0F); }));
    EXPECT_TRUE(eventually(
        [this] { return east_->text_shown("osc/tx/remoteInterfaceName") == "if-1/2/2-tx"; }));
}

TEST_F(Line, LossFollowsTheSpan) {
    start();
    expect_losses(first_loss, first_loss);
    east_->turn("line/fibreLoss", 12.5F);
    expect_losses(13.5F, first_loss);
    west_->turn("line/connectorLoss", 0.25F);
    expect_losses(13.5F, 9.25F);
}

TEST_F(Line, CutFibreIsSeenAtBothEndsAndItsRepairToo) {
    start();
    expect_losses(first_loss, first_loss);
    const std::string down = "msg: OSC event link: down, state: ready";
    const std::size_t before = west_->times_logged(down);
    west_->turn("line/intact", false);
    EXPECT_TRUE(eventually([this] { return is_cut_off(*west_); }));
    EXPECT_TRUE(eventually([this] { return west_->text_shown("osc/linkStatus") == "down"; }));
    EXPECT_TRUE(eventually([this] { return west_->shows_figure("osc/rx/power", -40.0F, 0.01F); }));
    EXPECT_EQ(west_->times_logged(down), before + 1);
    // The other fibre is whole: what comes back over it is that nothing arrives.
    EXPECT_TRUE(eventually([this] { return east_->shows_figure("osc/loss", 41.5F, 0.01F); }));
    west_->turn("line/intact", true);
    expect_losses(first_loss, first_loss);
    EXPECT_EQ(west_->times_logged("msg: Caught exception: "), 0U);
}

TEST_F(Line, FarEndThatIsKilledAndReturnsIsFoundAgainByItself) {
    start();
    expect_losses(first_loss, first_loss);
    const std::size_t events = west_->times_logged("msg: OSC event link: ");
    east_->kill_daemon();
    ASSERT_TRUE(eventually([this] {
        return west_->shows_error("osc/loss", "107 ") || west_->shows_error("osc/loss", "104 ");
    }));
    east_->start_daemon();
    expect_losses(first_loss, first_loss);
    EXPECT_EQ(west_->times_logged("msg: OSC event link: "), events);
}

TEST_F(Line, NeighbourThatBecomesKnownLateIsFoundAtTheNextEvent) {
    start();
    expect_losses(first_loss, first_loss);
    west_->turn("osc/2/neighbour", std::string());
    west_->turn("osc/2/state", std::string("busy"));
    ASSERT_TRUE(eventually([this] { return is_cut_off(*west_); }));
    const std::size_t events = west_->times_logged("msg: OSC event link: up, state: ready");
    west_->turn("osc/2/state", std::string("ready"));
    ASSERT_TRUE(eventually(
        [&] { return west_->times_logged("msg: OSC event link: up, state: ready") > events; }));
    west_->turn("osc/2/neighbour", east_->address());
    EXPECT_TRUE(is_cut_off(*west_));
    west_->turn("osc/2/state", std::string("busy"));
    west_->turn("osc/2/state", std::string("ready"));
    expect_losses(first_loss, first_loss);
}

TEST_F(Line, PulledTransceiverDarkensTheOtherEnd) {
    start();
    expect_losses(first_loss, first_loss);
    west_->turn("interface/2/present", false);
    EXPECT_TRUE(eventually([this] { return west_->times_logged("msg: sfp/2 was removed.") >= 1; }));
    EXPECT_TRUE(eventually([this] { return is_cut_off(*east_); }));
    EXPECT_TRUE(eventually([this] { return is_cut_off(*west_); }));
    west_->turn("interface/2/present", true);
    EXPECT_TRUE(
        eventually([this] { return west_->times_logged("msg: sfp/2 was inserted.") >= 1; }));
    expect_losses(first_loss, first_loss);
}

TEST_F(Line, RestartedHandlerOfTheTransceiverIsMeasuredAgain) {
    start();
    expect_losses(first_loss, first_loss);
    west_->turn("handler/sfp/1/restart", true);
    ASSERT_TRUE(eventually(
        [this] { return west_->times_logged("msg: Event subscribe_sfp_paths on sfp/2") == 2; }));
    west_->turn("interface/2/txPower", 3.0F);
    west_->turn("line/fibreLoss", 8.0F);
    EXPECT_TRUE(eventually([this] { return east_->shows_figure("osc/rx/power", -7.0F, 0.01F); }));
    expect_losses(first_loss, 9.0F);
    EXPECT_EQ(west_->times_logged("was inserted."), 0U);
    EXPECT_EQ(west_->times_logged("was removed."), 0U);
}

TEST_F(Line, ThatFlapsLeavesNothingBehind) {
    start();
    expect_losses(first_loss, first_loss);
    const auto before = test::holdings_of(west_->daemon().id());
    for (unsigned flap = 0; flap < link_flaps(); ++flap) {
        west_->turn("osc/2/linkStatus", std::string("down"));
        ASSERT_TRUE(eventually([&] {
            return west_->times_logged("msg: OSC event link: down") > flap;
        })) << flap;
        west_->turn("osc/2/linkStatus", std::string("up"));
        ASSERT_TRUE(eventually([&] {
            return west_->times_logged("msg: OSC event link: up") > flap + 1;
        })) << flap;
    }
    expect_losses(first_loss, first_loss);
    test::holdings after = test::holdings_of(west_->daemon().id());
    eventually(
        [&] {
            after = test::holdings_of(west_->daemon().id());
            return after.descriptors <= before.descriptors && after.threads <= before.threads;
        },
        std::chrono::seconds(10));
    std::cout << link_flaps() << " link flaps: descriptors " << before.descriptors << " -> "
              << after.descriptors << ", threads " << before.threads << " -> " << after.threads
              << ", resident " << before.resident_kb << " -> " << after.resident_kb << " kB\n";
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_LE(after.threads, before.threads);
}
