// The proxy's single paths, against a handler made in the test.
#include "mirror_fixture.hpp"

namespace {

using test::eventually;
using test::log_line;
using strings = std::vector<std::string>;

template <class T>
using status = dh::api::status_value<T>;

class Proxy : public test::mirror_fixture {
  protected:
    Proxy() {
        start_handler();
        client_ = device_handler_client::create(host_path_, "handler", {});
    }

    template <class Node, class T>
    void subscribe(const std::string& remote_path, const std::string& local_path) {
        proxy_->subscribe<Node, T>(client_, remote_path, local_path);
    }

    // Watches a path of the handler beside the proxy: whoever has seen an event
    // here knows that the subscriber that was added before has seen it too.
    std::shared_ptr<test::recording_subscriber> observe(const std::string& path) {
        auto subscriber = std::make_shared<test::recording_subscriber>(path);
        client_->add_subscriber(subscriber);
        return subscriber;
    }

    std::shared_ptr<device_handler_client> client_;
};

TEST_F(Proxy, StatusPathExistsOnlyAfterItsFirstEvent) {
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    const auto refusal = "data/ready: No such path: data/ready";
    ASSERT_TRUE(eventually([&] { return has_logged(3, "dh_proxy/exception_event", refusal); }));
    EXPECT_FALSE(db_.contains("module/ready"));

    const auto ready = publish<bool>("data/ready", true);
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    EXPECT_TRUE(becomes("module/ready", "true"));
    ready->set(false);
    EXPECT_TRUE(becomes("module/ready", "false"));
}

TEST_F(Proxy, TextsAreMirroredToo) {
    const auto name = publish<std::string>("data/name", "a \"b\"");
    subscribe<status<std::string>, std::string>("data/name", "module/name");
    EXPECT_TRUE(becomes("module/name", R"("a \"b\"")"));
    name->set("");
    EXPECT_TRUE(becomes("module/name", R"("")"));
}

TEST_F(Proxy, FloatMirrorIsThereAtOnceInErrorAndThenGetsValues) {
    subscribe<float_node, float>("data/power", "module/power");
    EXPECT_EQ(local("module/power"), "-61 Value has not been set");
    const auto power = publish_float("data/power");
    subscribe<float_node, float>("data/power", "module/power");
    power->push(-3.5F);
    EXPECT_TRUE(becomes("module/power", "-3.5"));
    power->push(-4.5F);
    EXPECT_TRUE(becomes("module/power", "-4.5"));
}

TEST_F(Proxy, EmptyClientDoesNothingAndLogsNothing) {
    client_.reset();
    log_.clear();
    proxy_->subscribe<status<bool>, bool>(client_, "data/ready", "module/ready");
    proxy_->subscribe<float_node, float>(client_, "data/power", "module/power");
    proxy_->subscribe<bool>(client_, "data/ready", "module/ready", [](bool) {});
    EXPECT_EQ(local_paths(), strings{});
    EXPECT_EQ(log_.texts(), strings{});
}

TEST_F(Proxy, LookupGivesTheNodeOfThatVeryType) {
    const auto made = proxy_->add_status_path<bool>("module/ready", true);
    const auto found = proxy_->get_path_node<status<bool>>("module/ready");
    ASSERT_TRUE(found);
    EXPECT_EQ(*found, made);
}

TEST_F(Proxy, LookupOfAnotherTypeIsEmptyAndLogsTheMangledName) {
    proxy_->add_status_path<bool>("module/ready", true);
    log_.clear();
    EXPECT_FALSE(proxy_->get_path_node<status<std::string>>("module/ready"));
    const std::vector<log_line> expected{
        {3, "proxy/get_path_node",
         std::string("unable to dynamic cast path 'module/ready' to type '") +
             typeid(status<std::string>).name() + "'"}};
    EXPECT_EQ(log_.lines(), expected);
}

TEST_F(Proxy, LookupDoesNotTakeTheSameValueWithAnotherComparison) {
    dh::api::status_value<bool, std::greater<bool>>::create(db_, "module/ready", true, 0);
    EXPECT_FALSE(proxy_->get_path_node<status<bool>>("module/ready"));
}

TEST_F(Proxy, LookupOfAMissingPathIsEmptyAndLogsWhy) {
    log_.clear();
    EXPECT_FALSE(proxy_->get_path_node<status<bool>>("module/none"));
    const std::vector<log_line> expected{
        {7, "proxy/get_path_node", dh_error(-2, "No such path: module/none").what()}};
    EXPECT_EQ(log_.lines(), expected);
}

TEST_F(Proxy, AddedStatusPathIsPublishedAndTicked) {
    log_.clear();
    const auto node = proxy_->add_status_path<std::string>("module/name", "first");
    EXPECT_EQ(local("module/name"), R"("first")");
    EXPECT_EQ(node->poll_interval(), 1000U);
    const std::vector<log_line> expected{
        {7, "dh_proxy/add_status_path", "creating path 'module/name'"}};
    EXPECT_EQ(log_.lines(), expected);
}

TEST_F(Proxy, AddedFloatPathStartsPublished) {
    log_.clear();
    const auto node = proxy_->add_pushed_volatile_path<const std::string&>("module/loss", 2.5F);
    EXPECT_EQ(local("module/loss"), "2.5");
    EXPECT_EQ(node->poll_interval(), 1000U);
    const std::vector<log_line> expected{
        {7, "dh_proxy/add_volatile_path", "creating path 'module/loss'"}};
    EXPECT_EQ(log_.lines(), expected);
    node->push(3.5F);
    EXPECT_EQ(local("module/loss"), "3.5");
}

TEST_F(Proxy, SubscriptionAndItsValuesAreLogged) {
    const auto ready = publish<bool>("data/ready", true);
    log_.clear();
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    EXPECT_TRUE(has_logged(7, "dh_proxy/subscribe",
                           "Subscription started on 'data/ready' -> 'module/ready'"));
    EXPECT_TRUE(becomes("module/ready", "true"));
    EXPECT_TRUE(
        has_logged(8, "dh_proxy/value_change_event", "Path 'data/ready' changed value to 'true'"));
    EXPECT_EQ(lines_of("dh_proxy/add_status_path"), 1U);
    ready->set(false);
    ASSERT_TRUE(becomes("module/ready", "false"));
    EXPECT_TRUE(
        has_logged(8, "dh_proxy/value_change_event", "Path 'data/ready' changed value to 'false'"));
    EXPECT_EQ(lines_of("dh_proxy/add_status_path"), 1U);
}

TEST_F(Proxy, TracesAreNotWrittenBelowTheirLevel) {
    msg_log::instance().set_level(msg_log::progress);
    publish<bool>("data/ready", true);
    log_.clear();
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    EXPECT_TRUE(becomes("module/ready", "true"));
    EXPECT_FALSE(proxy_->get_path_node<status<bool>>("module/none"));
    EXPECT_EQ(log_.texts(), strings{});
}

TEST_F(Proxy, ValueForANodeThatWasRemovedIsDroppedWithALine) {
    const auto count = publish<std::string>("data/name", "a");
    subscribe<status<std::string>, std::string>("data/name", "module/name");
    ASSERT_TRUE(becomes("module/name", R"("a")"));
    ASSERT_TRUE(db_.remove_node("module/name"));
    log_.clear();
    count->set("b");
    EXPECT_TRUE(eventually([&] {
        return has_logged(4, "dh_proxy/node", "unable to lock weak_ptr, path: module/name");
    }));
    EXPECT_FALSE(db_.contains("module/name"));
}

TEST_F(Proxy, UpdateCallbackIsCalledAfterEachValue) {
    const auto ready = publish<bool>("data/ready", true);
    const auto seen = std::make_shared<test::recorded_texts>();
    proxy_->on_update("module/ready", [this, seen] { seen->add(local("module/ready")); });
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    ASSERT_TRUE(eventually([&] { return seen->all() == strings{"true"}; }));
    ready->set(false);
    EXPECT_TRUE(eventually([&] { return seen->all() == (strings{"true", "false"}); }));
}

TEST_F(Proxy, UpdateCallbackOfARemovedNodeIsNotCalled) {
    const auto ready = publish<bool>("data/ready", true);
    const auto calls = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("module/ready", [calls] { ++*calls; });
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    ASSERT_TRUE(eventually([&] { return *calls == 1; }));
    db_.remove_node("module/ready");
    ready->set(false);
    ASSERT_TRUE(eventually([&] { return lines_of("dh_proxy/node") == 1; }));
    EXPECT_EQ(*calls, 1);
}

TEST_F(Proxy, EmptyUpdateCallbackIsAsNone) {
    publish<bool>("data/ready", true);
    proxy_->on_update("module/ready", {});
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    EXPECT_TRUE(becomes("module/ready", "true"));
}

TEST_F(Proxy, WatchOfAPathCallsBackAndMakesNoNode) {
    const auto power = publish_float("data/power", 1.5F);
    const auto seen = std::make_shared<test::recorded_texts>();
    proxy_->subscribe<float>(client_, "data/power", "module/power",
                             [seen](float value) { seen->add(fmt::format("{}", value)); });
    ASSERT_TRUE(eventually([&] { return seen->all() == strings{"1.5"}; }));
    power->push(2.5F);
    EXPECT_TRUE(eventually([&] { return seen->all() == (strings{"1.5", "2.5"}); }));
    EXPECT_EQ(local_paths(), strings{});
}

TEST_F(Proxy, SecondSubscribeReplacesTheSubscriberAndKeepsTheNode) {
    const auto ready = publish<bool>("data/ready", true);
    const auto seen = std::make_shared<test::recorded_texts>();
    proxy_->on_update("module/ready", [this, seen] { seen->add(local("module/ready")); });
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    ASSERT_TRUE(eventually([&] { return seen->all() == strings{"true"}; }));
    const auto node = db_.find_leaf_node("module/ready");

    subscribe<status<bool>, bool>("data/ready", "module/ready");
    ASSERT_TRUE(eventually([&] { return seen->all().size() == 2; }));
    EXPECT_EQ(db_.find_leaf_node("module/ready"), node);
    const auto observer = observe("data/ready");
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready true"); }));
    ready->set(false);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready false"); }));
    EXPECT_EQ(seen->all(), (strings{"true", "true", "false"}));
}

TEST_F(Proxy, SecondSubscribeMayBeOnAnotherRemotePath) {
    const auto first = publish<std::string>("data/first", "1");
    const auto second = publish<std::string>("data/second", "2");
    subscribe<status<std::string>, std::string>("data/first", "module/name");
    ASSERT_TRUE(becomes("module/name", R"("1")"));
    subscribe<status<std::string>, std::string>("data/second", "module/name");
    ASSERT_TRUE(becomes("module/name", R"("2")"));
    const auto observer = observe("data/first");
    first->set("x");
    ASSERT_TRUE(eventually([&] { return observer->has(R"(value data/first "x")"); }));
    second->set("y");
    EXPECT_TRUE(becomes("module/name", R"("y")"));
    EXPECT_EQ(lines_of("dh_proxy/value_change_event", "Path 'data/first' changed value to 'x'"),
              0U);
}

TEST_F(Proxy, ErrorOfTheHandlerIsLoggedAndTheValueKept) {
    const auto power = publish_float("data/power", 1.5F);
    subscribe<float_node, float>("data/power", "module/power");
    ASSERT_TRUE(becomes("module/power", "1.5"));
    const auto calls = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("module/power", [calls] { ++*calls; });
    keep(float_node::create(remote(), "data/dark"));
    proxy_->subscribe<float_node, float>(client_, "data/dark", "module/power");
    EXPECT_TRUE(eventually([&] {
        return has_logged(3, "dh_proxy/exception_event", "data/dark: Value has not been set");
    }));
    EXPECT_EQ(local("module/power"), "1.5");
    EXPECT_EQ(*calls, 0);
}

TEST_F(Proxy, EndOfTheSubscriptionIsLoggedAndTheValueKept) {
    publish<bool>("data/ready", true);
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    ASSERT_TRUE(becomes("module/ready", "true"));
    remote().remove_node("data/ready");
    EXPECT_TRUE(eventually(
        [&] { return has_logged(8, "dh_proxy/remove_event", "Path: data/ready, code: 1"); }));
    EXPECT_EQ(local("module/ready"), "true");
}

TEST_F(Proxy, ValueIsKeptWhileTheHandlerIsAwayAndFollowsItsReturn) {
    publish<std::string>("data/name", "before");
    subscribe<status<std::string>, std::string>("data/name", "module/name");
    ASSERT_TRUE(becomes("module/name", R"("before")"));
    stop_handler();
    ASSERT_TRUE(eventually([&] { return !client_->is_connected(); }));
    EXPECT_EQ(local("module/name"), R"("before")");
    start_handler();
    publish<std::string>("data/name", "after");
    EXPECT_TRUE(becomes("module/name", R"("after")"));
}

TEST_F(Proxy, ValueOfTheWrongTypeIsDroppedWithOneLineAndTheNextOneIsTaken) {
    const auto wrong = publish<std::string>("data/ready", "yes");
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    const std::string dropped =
        "msg: handler, event of data/ready dropped: expected bool, found string";
    ASSERT_TRUE(eventually([&] { return has_logged(4, "dh_client", dropped); }));
    wrong->set("no");
    const auto observer = observe("data/ready");
    ASSERT_TRUE(eventually([&] { return observer->has(R"(value data/ready "no")"); }));
    EXPECT_EQ(lines_of("dh_client"), 1U);
    EXPECT_FALSE(db_.contains("module/ready"));
    remote().remove_node("data/ready");
    publish<bool>("data/ready", true);
    subscribe<status<bool>, bool>("data/ready", "module/ready");
    EXPECT_TRUE(becomes("module/ready", "true"));
}

// A text is what any value can be read as, so nothing that comes is lost.
TEST_F(Proxy, TextMirrorTakesEveryValue) {
    publish<unsigned int>("data/count", 4);
    subscribe<status<std::string>, std::string>("data/count", "module/count");
    EXPECT_TRUE(becomes("module/count", R"("4")"));
}

TEST_F(Proxy, FloatBeyondItsRangeIsDroppedAndTheValueKept) {
    publish<float>("data/power", 1.5F);
    subscribe<float_node, float>("data/power", "module/power");
    ASSERT_TRUE(becomes("module/power", "1.5"));
    remote().remove_node("data/power");
    publish<double>("data/power", 1e300);
    subscribe<float_node, float>("data/power", "module/power");
    EXPECT_TRUE(eventually(
        [&] { return lines_of("dh_client", "msg: handler, event of data/power dropped") == 1; }));
    EXPECT_EQ(local("module/power"), "1.5");
}

TEST_F(Proxy, ValueAfterTheProxyHasGoneIsDropped) {
    const auto ready = publish<bool>("data/ready", true);
    auto other = std::make_shared<dh::util::proxy>(db_, &main_mutex_);
    const auto seen = std::make_shared<test::recorded_texts>();
    other->on_update("module/ready", [seen] { seen->add("update"); });
    other->subscribe<status<bool>, bool>(client_, "data/ready", "module/ready");
    ASSERT_TRUE(eventually([&] { return seen->has("update"); }));
    other.reset();
    const auto observer = observe("data/ready");
    ready->set(false);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready false"); }));
    EXPECT_EQ(local("module/ready"), "true");
    EXPECT_EQ(seen->all(), strings{"update"});
}

TEST_F(Proxy, FloatThatTwoThreadsSubscribeAtOnceHasOneNodeThatGetsTheValue) {
    publish_float("data/level", 1.5F);
    constexpr int paths = 200;
    const auto subscribe_all = [&] {
        for (int i = 0; i < paths; ++i)
            subscribe<float_node, float>("data/level", "module/" + std::to_string(i));
    };
    std::thread other(subscribe_all);
    subscribe_all();
    other.join();
    for (int i = 0; i < paths; ++i)
        ASSERT_TRUE(becomes("module/" + std::to_string(i), "1.5"));
}

TEST_F(Proxy, SubscribeFromSeveralThreadsLeavesOneSubscriberForEachPath) {
    const auto count = publish<std::string>("data/name", "a");
    const auto calls = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("module/name", [calls] { ++*calls; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 25; ++i)
                subscribe<status<std::string>, std::string>("data/name", "module/name");
        });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_TRUE(becomes("module/name", R"("a")"));
    const auto observer = observe("data/name");
    ASSERT_TRUE(eventually([&] { return observer->has(R"(value data/name "a")"); }));
    *calls = 0;
    count->set("b");
    ASSERT_TRUE(eventually([&] { return observer->has(R"(value data/name "b")"); }));
    EXPECT_EQ(*calls, 1);
}

}  // namespace
