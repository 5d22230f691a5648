// The objects that stand for the booster, the switch and the supervisory channels.
#include "booster.hpp"
#include "line_server.hpp"
#include "mirror_fixture.hpp"
#include "osc.hpp"
#include "wss_edge.hpp"

#include <algorithm>

namespace {

using test::eventually;
using test::line_server;
using strings = std::vector<std::string>;

class ModuleMirror : public testing::Test {
  protected:
    ~ModuleMirror() override {
        for (const auto& client : proxy_->clients)
            proxy_->unsubscribe_path(client, "");
        proxy_->clients.clear();
        test::let_deliveries_end();
    }

    static std::unique_ptr<dh_server> serve(const std::string& name) {
        return std::make_unique<dh_server>(name, test::root() + "/tmp/device_handlers/" + name);
    }

    const test::log_capture log_;
    dh_db db_;
    std::mutex main_mutex_;
    std::shared_ptr<dh::util::proxy> proxy_ = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
    const std::shared_ptr<device_handler_connection_subscriber> nobody_;
};

// Whether the module says that it is ready when its mirrored configStatus does.
template <class Module>
void expect_readiness_follows_mirror(Module& module, dh::util::proxy& proxy,
                                     const std::shared_ptr<dh::api::status_value<bool>>& status) {
    EXPECT_FALSE(module.is_ready());
    proxy.subscribe_path(module.client(), "");
    EXPECT_TRUE(eventually(
        [&] { return proxy.db().contains(module.client()->name() + "/data/configStatus"); }));
    EXPECT_FALSE(module.is_ready());
    status->set(true);
    EXPECT_TRUE(eventually([&] { return module.is_ready(); }));
    status->set(false);
    EXPECT_TRUE(eventually([&] { return !module.is_ready(); }));
}

TEST_F(ModuleMirror, NobodyIsReadyBeforeAnythingIsMirrored) {
    EXPECT_FALSE(booster::create(proxy_, nobody_)->is_ready());
    EXPECT_FALSE(wss_edge::create(proxy_, nobody_)->is_ready());
    EXPECT_FALSE(osc::create(0, proxy_, nobody_)->is_ready());
    EXPECT_FALSE(osc::create(1, proxy_, nobody_)->is_ready());
    EXPECT_EQ(log_.texts(msg_log::failure), strings{});
}

TEST_F(ModuleMirror, ReadinessOfTheBoosterFollowsItsMirror) {
    const auto handler = serve("booster");
    const auto status =
        dh::api::status_value<bool>::create(handler->db(), "data/configStatus", false, 0);
    expect_readiness_follows_mirror(*booster::create(proxy_, nobody_), *proxy_, status);
}

TEST_F(ModuleMirror, ReadinessOfTheSwitchFollowsItsMirror) {
    const auto handler = serve("wss_edge");
    const auto status =
        dh::api::status_value<bool>::create(handler->db(), "data/configStatus", false, 0);
    expect_readiness_follows_mirror(*wss_edge::create(proxy_, nobody_), *proxy_, status);
}

TEST_F(ModuleMirror, ReadinessOfASupervisoryChannelFollowsItsMirror) {
    const auto handler = serve("osc1");
    const auto status =
        dh::api::status_value<bool>::create(handler->db(), "data/configStatus", false, 0);
    expect_readiness_follows_mirror(*osc::create(0, proxy_, nobody_), *proxy_, status);
}

TEST_F(ModuleMirror, ConfigStatusOfAnotherTypeIsNotReadiness) {
    const auto made = booster::create(proxy_, nobody_);
    proxy_->add_status_path<std::string>("booster/data/configStatus", "true");
    EXPECT_FALSE(made->is_ready());
}

TEST_F(ModuleMirror, EachModuleHasItsClientAmongThoseOfTheProxy) {
    booster::create(proxy_, nobody_);
    wss_edge::create(proxy_, nobody_);
    osc::create(0, proxy_, nobody_);
    osc::create(1, proxy_, nobody_);
    strings names;
    for (const auto& client : proxy_->clients)
        names.push_back(client->name());
    EXPECT_EQ(names, (strings{"booster", "wss_edge", "osc/1", "osc/2"}));
}

TEST_F(ModuleMirror, SecondSupervisoryChannelOpensTheSocketNumberedTwoAndIsPortOne) {
    const auto first_handler = serve("osc1");
    const auto second_handler = serve("osc2");
    const auto number =
        dh::api::const_value<unsigned int>::create(first_handler->db(), "data/number", 1);
    const auto other =
        dh::api::const_value<unsigned int>::create(second_handler->db(), "data/number", 2);
    const auto first = osc::create(0, proxy_, nobody_);
    const auto second = osc::create(1, proxy_, nobody_);
    EXPECT_EQ(first->get_port_id(), 0U);
    EXPECT_EQ(second->get_port_id(), 1U);
    EXPECT_EQ(first->client()->get<int>("data/number"), 1);
    EXPECT_EQ(second->client()->get<int>("data/number"), 2);
}

TEST_F(ModuleMirror, ConnectionEventsGoToTheSubscriber) {
    const auto handler = serve("booster");
    const auto connection = std::make_shared<test::recording_connection>();
    const auto made = booster::create(proxy_, connection);
    EXPECT_TRUE(eventually([&] { return connection->has("established booster"); }));
}

TEST_F(ModuleMirror, UnsubscribeEndsTheMirrorOfTheBooster) {
    const auto handler = serve("booster");
    const auto count =
        dh::api::status_value<unsigned int>::create(handler->db(), "data/count", 1, 0);
    const auto made = booster::create(proxy_, nobody_);
    ASSERT_TRUE(eventually([&] { return made->client()->is_connected(); }));
    proxy_->subscribe_path(made->client(), "");
    ASSERT_TRUE(eventually([&] { return db_.contains("booster/data/count"); }));
    made->unsubscribe();
    const auto observer = std::make_shared<test::recording_subscriber>("data/count");
    made->client()->add_subscriber(observer);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/count 1"); }));
    count->set(2);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/count 2"); }));
    EXPECT_EQ(test::read(*db_.find_leaf_node("booster/data/count")), R"({"value":1})");
    made->client()->remove_subscriber(observer);
}

// It is called by another number than its client: nothing of the client's name.
TEST_F(ModuleMirror, UnsubscribeOfASupervisoryChannelLeavesItsMirror) {
    const auto handler = serve("osc2");
    const auto count =
        dh::api::status_value<unsigned int>::create(handler->db(), "data/count", 1, 0);
    const auto made = osc::create(1, proxy_, nobody_);
    ASSERT_TRUE(eventually([&] { return made->client()->is_connected(); }));
    proxy_->subscribe_path(made->client(), "");
    ASSERT_TRUE(eventually([&] { return db_.contains("osc/2/data/count"); }));
    made->unsubscribe();
    count->set(2);
    EXPECT_TRUE(eventually(
        [&] { return test::read(*db_.find_leaf_node("osc/2/data/count")) == R"({"value":2})"; }));
}

class MonitorPortOffset : public ModuleMirror {
  protected:
    static std::string setting(const std::string& parent) {
        return R"({"path":")" + parent +
               R"(/monitorPortOffset","info":{"valueType":"float","capabilities":)"
               R"({"read":true,"write":true,"subscribe":true}}})";
    }

    const std::string path_ = "wss_edge/config/ocm/2/monitorPortOffset";
};

TEST_F(MonitorPortOffset, IsUnsetInTheTreeAndTwentyInTheObject) {
    const auto made = wss_edge::create(proxy_, nobody_);
    EXPECT_EQ(made->ocm_monitor_port_offset(), 20.0F);
    EXPECT_EQ(test::read(*db_.find_leaf_node(path_)), R"({"value":null})");
    EXPECT_EQ(db_.find_leaf_node(path_)->poll_interval(), 1000U);
}

TEST_F(MonitorPortOffset, WriteOfAnotherTypeChangesNothing) {
    const auto made = wss_edge::create(proxy_, nobody_);
    EXPECT_EQ(test::conversion_error_of([&] { test::write(*db_.find_leaf_node(path_), "true"); }),
              "expected float, found bool");
    EXPECT_EQ(made->ocm_monitor_port_offset(), 20.0F);
}

// The handler has a setting of that name too, and everything else is mirrored.
TEST_F(MonitorPortOffset, WriteChangesTheMemberAndDoesNotReachTheHandlersSocket) {
    test::recorded_texts requests;
    std::filesystem::create_directories(test::root() + "/tmp/device_handlers");
    const line_server handler(
        test::root() + "/tmp/device_handlers/wss_edge", [&](const line_server::request& asked) {
            requests.add(asked.method + " " + asked.params);
            if (asked.method == "watch")
                return line_server::reply(asked, R"({"nodes":[)" + setting("config/ocm/2") + "," +
                                                     setting("config/ocm/1") + "]}");
            return line_server::reply(asked, R"([{"value":3}])");
        });
    const auto made = wss_edge::create(proxy_, nobody_);
    ASSERT_TRUE(eventually([&] { return made->client()->is_connected(); }));
    proxy_->subscribe_path(made->client(), "");
    ASSERT_TRUE(
        eventually([&] { return db_.contains("wss_edge/config/ocm/1/monitorPortOffset"); }));

    test::write(*db_.find_leaf_node(path_), "17.5");
    EXPECT_EQ(made->ocm_monitor_port_offset(), 17.5F);
    EXPECT_EQ(test::read(*db_.find_leaf_node(path_)), R"({"value":17.5})");
    test::write(*db_.find_leaf_node("wss_edge/config/ocm/1/monitorPortOffset"), "16.5");
    EXPECT_EQ(made->client()->get<int>("marker"), 3);
    for (const std::string& request : requests.all())
        EXPECT_EQ(request.find("ocm/2"), std::string::npos) << request;
    EXPECT_TRUE(requests.has(
        R"(write {"items":[{"path":"config/ocm/1/monitorPortOffset","value":16.5}]})"));
}

}  // namespace
