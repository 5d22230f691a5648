#include "control_loop.hpp"

#include "device_handler_api.hpp"
#include "eventually.hpp"
#include "gated_time.hpp"
#include "log_capture.hpp"
#include "scripted_handler.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>

using test::eventually;
using testing::IsEmpty;

namespace {

const std::string text_type =
    "std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >";

// What the description of a node tells: its kind, its type and its limits.
struct node_description {
    std::string kind;
    std::string type;
    std::string immediate_limit = {};
    std::string delayed_limit = {};

    friend bool operator==(const node_description&, const node_description&) = default;
};

void PrintTo(const node_description& node, std::ostream* out) {
    *out << node.kind << " of " << node.type << " " << node.immediate_limit << " "
         << node.delayed_limit;
}

using tree_description = std::map<std::string, node_description>;

node_description volatile_of(const std::string& type) {
    return {"volatile value", type};
}

node_description setting_of(const std::string& type) {
    return {"config param", type};
}

node_description filtered_of(const std::string& type) {
    return {"polled volatile value", type};
}

node_description measured_power() {
    return {"polled volatile value", "float", "0.09", "0.05"};
}

tree_description expected_t47_tree() {
    tree_description tree{
        {"control/config/dhReady", setting_of("bool")},
        {"control/config/edfa/defaultAttenuation", setting_of("float")},
        {"control/config/express/defaultAttenuation", setting_of("float")},
        {"control/config/lossTimeout", setting_of("long long")},
        {"control/config/maxChannels", setting_of("unsigned int")},
        {"control/config/verbose", setting_of("bool")},
        {"control/data/boosterTx", volatile_of("float")},
        {"control/data/boosterTxAdjustment", volatile_of("float")},
        {"control/data/boosterTxAdjustmentDiff", volatile_of("float")},
        {"control/data/boosterTx_Original", volatile_of("float")},
        {"control/data/debug/configDone", volatile_of("bool")},
        {"control/data/edfa/calCloopWssIL", volatile_of("float")},
        {"control/data/edfa/defaultAttenuation", volatile_of("float")},
        {"control/data/express/calCloopWssIL", volatile_of("float")},
        {"control/data/express/defaultAttenuation", volatile_of("float")},
        {"control/data/lossTimeout", volatile_of("long long")},
        {"control/data/maxChannels", volatile_of("unsigned int")},
        {"control/data/numberOfActiveChannels", volatile_of("unsigned int")},
        {"control/data/verbose", volatile_of("bool")},
        {"control/data/wantedPowerMax", volatile_of("float")},
        {"control/data/wantedPowerMin", volatile_of("float")},
    };
    for (int channel = 1; channel <= 48; ++channel) {
        const std::string number = std::to_string(channel);
        tree["control/data/" + number + "/wantedPower"] = filtered_of("float");
        tree["control/data/" + number + "/opticalControlMode"] = filtered_of(text_type);
        tree["control/data/" + number + "/rxPower"] = measured_power();
        tree["control/data/" + number + "/txPower"] = measured_power();
        tree["control/data/" + number + "/portMode"] = filtered_of(text_type);
        tree["control/config/" + number + "/wantedPower"] = setting_of("float");
        tree["control/config/" + number + "/opticalControlMode"] = setting_of(text_type);
        tree["control/config/" + number + "/portMode"] = setting_of(text_type);
    }
    return tree;
}

std::string text_at(const json::value& object, const char* key) {
    const json::value* const member = json::find(object, key);
    return member != nullptr ? json::to<std::string>(*member) : "";
}

node_description description_of(const dh_db_leaf_node& node) {
    json::document memory;
    const json::value info = node.get_info(memory.GetAllocator());
    node_description found{text_at(info, "type"), text_at(info, "valueType")};
    if (const json::value* const filter = json::find(info, "hysteresis")) {
        found.immediate_limit = text_at(*filter, "ImmediateLimit");
        found.delayed_limit = text_at(*filter, "delayedLimit");
    }
    return found;
}

}  // namespace

// The control tree of a card, reached over the socket as a client reaches it.
class ControlTree : public testing::Test {
  protected:
    ControlTree() {
        test::empty_root();
        test::put_board("velt,t47");
        wss_.emplace("/tmp/device_handlers/wss_edge");
        booster_.emplace("/tmp/device_handlers/booster");
        system_start_.emplace("/tmp/device_handlers/system_start");
        system_start_->set("data/systemColdstart", false);
        server_.emplace("test", test::root() + "/tmp/server");
        proxy_ = std::make_shared<dh::util::proxy>(server_->db(), &main_mutex_);
    }

    ~ControlTree() override {
        time_.open();
        loop_.reset();
    }

    void create_loop() {
        loop_ = control_loop_main::create(proxy_, nullptr, client_of("device_handlers/wss_edge"),
                                          client_of("device_handlers/booster"));
        loop_->create_paths();
        loop_->set_maxChannels_nosave(0, 40);
    }

    static std::shared_ptr<device_handler_client> client_of(const std::string& socket) {
        return device_handler_client::create("/tmp/" + socket, socket, {});
    }

    tree_description published_tree() {
        tree_description tree;
        for (const auto& entry : server_->db().nodes_under("control"))
            tree[entry.path] = description_of(*entry.node);
        return tree;
    }

    template <class T>
    T read(const std::string& path) {
        return client().get<T>(path);
    }

    template <class T>
    void write(const std::string& path, T value) {
        client().template set<void>(path, value);
    }

    device_handler_client& client() {
        if (!client_)
            client_ = client_of("server");
        return *client_;
    }

    bool was_written(const std::string& path, const std::string& json_text) const {
        const auto requests = wss_->requests();
        return std::find(requests.begin(), requests.end(), "write " + path + "=" + json_text) !=
               requests.end();
    }

    test::gated_time time_;
    test::log_capture log_{msg_log::progress};
    std::optional<test::scripted_handler> wss_;
    std::optional<test::scripted_handler> booster_;
    std::optional<test::scripted_handler> system_start_;
    std::optional<dh_server> server_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_;
    std::shared_ptr<control_loop_main> loop_;
    std::shared_ptr<device_handler_client> client_;
};

TEST_F(ControlTree, OfASingleLoopCardIsExactlyThis) {
    create_loop();
    EXPECT_EQ(published_tree(), expected_t47_tree());
}

TEST_F(ControlTree, CardWithoutAControlLoopOfItsOwnHasNone) {
    test::put_board("velt,k47");
    create_loop();
    EXPECT_THAT(published_tree(), IsEmpty());
}

TEST_F(ControlTree, EveryNodeIsTickedOnceASecond) {
    create_loop();
    for (const auto& entry : server_->db().nodes_under("control"))
        EXPECT_EQ(entry.node->poll_interval(), 1000U) << entry.path;
}

TEST_F(ControlTree, ReadyOfTheManagementReleasesThePollThread) {
    create_loop();
    EXPECT_FALSE(read<bool>("control/data/debug/configDone"));
    ASSERT_TRUE(time_.comes_to_rest());
    write("control/config/dhReady", true);
    EXPECT_TRUE(read<bool>("control/data/debug/configDone"));
    time_.open();
    EXPECT_TRUE(eventually([this] {
        return log_.count(
                   "msg: Corvelle has now configured everything (status ok) now we can "
                   "start power regulation.") == 1;
    }));
}

TEST_F(ControlTree, ChannelBudgetGivesAllChannelsTheDefaultThatFollowsFromIt) {
    create_loop();
    loop_->set_wanted_power_nosave(0, 17, 1.5F);
    write("control/config/maxChannels", 10U);
    EXPECT_EQ(read<unsigned>("control/data/maxChannels"), 10U);
    EXPECT_FLOAT_EQ(read<float>("control/data/wantedPowerMin"), 0.0F);
    EXPECT_FLOAT_EQ(read<float>("control/data/wantedPowerMax"), 14.1F);
    for (unsigned channel = 1; channel <= 48; ++channel)
        EXPECT_FLOAT_EQ(loop_->get_wanted_power(0, channel), 10.0F) << channel;
    EXPECT_EQ(log_.count("msg: Set max channel to 10"), 1U);
    EXPECT_EQ(log_.count("msg: Calculate wanted power for WSS port: 0, max channels: 10"), 1U);
}

TEST_F(ControlTree, BudgetOfFortyChannelsSharesTheBoosterLimitAmongForty) {
    create_loop();
    EXPECT_EQ(log_.count("msg: Set max channel nosave to 40"), 1U);
    EXPECT_EQ(read<unsigned>("control/data/maxChannels"), 40U);
    EXPECT_NEAR(loop_->get_wantedPowerDefault(0), 3.979, 0.001);
    EXPECT_FLOAT_EQ(read<float>("control/data/wantedPowerMin"), -2.0F);
    EXPECT_NEAR(read<float>("control/data/wantedPowerMax"), 8.079, 0.001);
}

TEST_F(ControlTree, DefaultAttenuationGoesToTheIdleChannelsOfItsPortMode) {
    wss_->set("data/wss/channel/3/port", "edfa");
    wss_->set("data/wss/channel/4/port", "express");
    create_loop();
    write("control/config/edfa/defaultAttenuation", 12.5F);
    write("control/config/express/defaultAttenuation", 11.25F);
    EXPECT_EQ(read<float>("control/data/edfa/defaultAttenuation"), 12.5F);
    EXPECT_EQ(read<float>("control/data/express/defaultAttenuation"), 11.25F);
    EXPECT_TRUE(was_written("config/wss/channel/3/attenuation", "12.5"));
    EXPECT_TRUE(was_written("config/wss/channel/4/attenuation", "11.25"));
    EXPECT_EQ(log_.count("msg: Setting EDFA default att to 12.5"), 1U);
    EXPECT_EQ(log_.count("msg: Setting EXPRESS default att to 11.25"), 1U);
}

TEST_F(ControlTree, DefaultAttenuationThatCannotBeAppliedFailsTheWriteAndIsKept) {
    wss_->set("data/wss/channel/3/port", "edfa");
    wss_->fail_writes("config/wss/channel/3/attenuation", -5, "stuck");
    create_loop();
    try {
        write("control/config/edfa/defaultAttenuation", 12.5F);
        ADD_FAILURE() << "the write went through";
    } catch (const dh_client_exception& error) {
        EXPECT_EQ(error.code, -5);
        EXPECT_EQ(error.message, "stuck");
    }
    EXPECT_EQ(read<float>("control/data/edfa/defaultAttenuation"), 12.5F);
}

TEST_F(ControlTree, WantedPowerIsThatOfItsChannelOnly) {
    create_loop();
    write("control/config/48/wantedPower", 2.25F);
    EXPECT_EQ(loop_->get_wanted_power(0, 48), 2.25F);
    EXPECT_NE(loop_->get_wanted_power(0, 47), 2.25F);
}

TEST_F(ControlTree, ControlModeIsThatOfItsChannelOnly) {
    create_loop();
    write("control/config/5/opticalControlMode", std::string("off"));
    EXPECT_EQ(loop_->get_optical_ControlMode(0, 5), "off");
    EXPECT_EQ(loop_->get_optical_ControlMode(0, 6), "power");
}

TEST_F(ControlTree, PortModeIsWrittenToTheWss) {
    create_loop();
    write("control/config/9/portMode", std::string("off"));
    EXPECT_TRUE(was_written("config/wss/channel/9/port", "\"off\""));
}

TEST_F(ControlTree, VerboseAndLossTimeoutReadBackWhatWasWritten) {
    create_loop();
    EXPECT_FALSE(read<bool>("control/data/verbose"));
    EXPECT_EQ(read<long long>("control/data/lossTimeout"), 60);
    write("control/config/verbose", true);
    write("control/config/lossTimeout", 1LL << 40);
    EXPECT_TRUE(read<bool>("control/data/verbose"));
    EXPECT_EQ(read<long long>("control/data/lossTimeout"), 1LL << 40);
}

TEST_F(ControlTree, ReadingsAreThoseOfTheRegulatorBeforeTheFirstCycle) {
    create_loop();
    EXPECT_EQ(read<unsigned>("control/data/numberOfActiveChannels"), 0U);
    EXPECT_EQ(read<float>("control/data/boosterTx"),
              read<float>("control/data/boosterTx_Original"));
    EXPECT_EQ(read<float>("control/data/boosterTxAdjustmentDiff"), 0.0F);
    EXPECT_EQ(read<float>("control/data/edfa/calCloopWssIL"),
              loop_->get_cal_cloop_wss_il_edfaport());
    EXPECT_EQ(read<float>("control/data/express/calCloopWssIL"),
              loop_->get_cal_cloop_wss_il_expressport());
}

TEST_F(ControlTree, ChannelValuesArePublishedWithinSevenTicks) {
    wss_->set("data/wss/channel/2/port", "express");
    create_loop();
    write("control/config/2/wantedPower", 1.5F);
    for (int tick = 0; tick < 7; ++tick)
        proxy_->value_group().tick();
    EXPECT_EQ(read<float>("control/data/2/wantedPower"), 1.5F);
    EXPECT_EQ(read<std::string>("control/data/2/opticalControlMode"), "power");
    EXPECT_EQ(read<std::string>("control/data/2/portMode"), "express");
    EXPECT_EQ(read<float>("control/data/2/txPower"), -25.0F);
}

TEST_F(ControlTree, ValueOfTheWrongTypeIsRefused) {
    create_loop();
    try {
        write("control/config/maxChannels", std::string("many"));
        ADD_FAILURE() << "the write went through";
    } catch (const dh_client_exception& error) {
        EXPECT_EQ(error.code, dh_error_code::invalid_argument);
    }
    EXPECT_EQ(read<unsigned>("control/data/maxChannels"), 40U);
}
