// The mirror of a handler's whole tree.
#include "mirror_fixture.hpp"

#include "wire_fixture.hpp"

#include <gmock/gmock.h>

namespace {

using test::eventually;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using strings = std::vector<std::string>;

// What the handler does with what is written to it.
class handler_owner {
  public:
    void set_power(float power) {
        if (power > 50)
            throw dh_error(77, "too much");
        ++writes;
    }
    bool measure(bool argument) { return !argument; }
    float get_volatile() { return volatile_value; }
    float get_failing() { throw dh_error(42, "no light"); }

    std::atomic<int> writes{0};
    std::atomic<float> volatile_value{1.25F};
};

// A setting that takes a write and publishes something else.
class clamping_setting final : public dh::api::value_event_node {
  public:
    using dh::api::value_event_node::value_event_node;

    void set(const std::string&, const json::value& value) override {
        const std::lock_guard lock(mutex_);
        asked_ = json::to<double>(value);
    }
    void settle() {
        const std::lock_guard lock(mutex_);
        value_ = std::min(asked_, 10.0);
        send_value_changed(value_);
    }
    void get(const std::string& key, json::allocator& memory, json::value& out) override {
        const std::lock_guard lock(mutex_);
        json::add(out, key, value_, memory);
    }
    void subscribe(std::shared_ptr<dh_session> session, const std::string& key,
                   json::allocator& memory, json::value& out,
                   std::unique_lock<std::mutex>& lock) override {
        const std::lock_guard value_lock(mutex_);
        dh_db_event_node::subscribe(session, key, memory, out, lock);
        json::add(out, key, value_, memory);
        send_initial_value(session,
                           [this](const char* name, json::allocator& pool, json::value& event) {
                               json::add(event, name, value_, pool);
                           });
    }
    json::value get_info(json::allocator& memory) const override {
        json::value info(rapidjson::kObjectType);
        json::add(info, "type", "a name that means nothing", memory);
        json::add(info, "valueType", "double", memory);
        json::add(info, "capabilities",
                  dh::api::capabilities({"read", "write", "subscribe"}, memory), memory);
        return info;
    }
    using dh::api::value_event_node::get_info;

  private:
    std::mutex mutex_;
    double asked_ = 0;
    double value_ = 5;
};

class TreeMirror : public test::mirror_fixture {
  protected:
    TreeMirror() { start_handler(); }

    // Everything that the handler has told of is in the local tree: it tells in
    // order, so the node that it adds last, and that is the last one in the order
    // of paths, is the last to come.
    void settle() {
        const std::string marker = "~marker/" + std::to_string(++markers_);
        const auto node = publish<unsigned int>(marker, 1);
        ASSERT_TRUE(becomes("handler/" + marker, "1"));
        remote().remove_node(marker);
        ASSERT_TRUE(eventually([&] { return !db_.contains("handler/" + marker); }));
    }

    strings mirrored_paths() const {
        strings paths;
        for (const std::string& path : local_paths()) {
            if (path.starts_with("handler/"))
                paths.push_back(path);
        }
        return paths;
    }

    std::string type_at(const std::string& path) {
        json::document memory;
        const json::value info = db_.find_leaf_node(path)->get_info(memory.GetAllocator());
        const json::value* type = json::find(info, "type");
        return type != nullptr ? json::to<std::string>(*type) : std::string();
    }
    // What the local node says it can do, in alphabetical order.
    strings capabilities_at(const std::string& path) {
        json::document memory;
        const json::value info = db_.find_leaf_node(path)->get_info(memory.GetAllocator());
        strings found;
        for (const auto& member : json::find(info, "capabilities")->GetObject())
            found.push_back(member.name.GetString());
        std::sort(found.begin(), found.end());
        return found;
    }

    // "CODE MESSAGE" of what the write throws, or nothing.
    std::string write_local(const std::string& path, const std::string& value) {
        try {
            test::write(*db_.find_leaf_node(path), value);
        } catch (const dh_error& error) {
            return std::to_string(error.code) + " " + error.message;
        } catch (const dh_client_exception& error) {
            return std::to_string(error.code) + " " + error.message;
        }
        return {};
    }
    std::string run_local(const std::string& path, const std::string& argument) {
        try {
            return test::run(*db_.find_leaf_node(path), argument);
        } catch (const dh_error& error) {
            return std::to_string(error.code) + " " + error.message;
        } catch (const dh_client_exception& error) {
            return std::to_string(error.code) + " " + error.message;
        }
    }

    // The handler is away, and the daemon has seen it go.
    void lose_handler() {
        const auto losses = [this] {
            const strings events = connection_->all();
            return std::count(events.begin(), events.end(), "lost handler");
        };
        const auto before = losses();
        stop_handler();
        ASSERT_TRUE(eventually([&] { return losses() > before; }));
    }

    void publish_setting() {
        keep(dh::api::config_param<&handler_owner::set_power>::create(remote(), "control/power",
                                                                      owner_));
    }
    void publish_command() {
        keep(
            dh::api::command<&handler_owner::measure>::create(remote(), "command/measure", owner_));
    }
    void publish_volatile() {
        keep(dh::api::volatile_value<&handler_owner::get_volatile>::create(remote(), "data/now",
                                                                           owner_));
    }

    const std::shared_ptr<handler_owner> owner_ = std::make_shared<handler_owner>();

  private:
    int markers_ = 0;
};

TEST_F(TreeMirror, KindsOfNodesFollowTheCapabilities) {
    publish<bool>("data/bool", true);
    publish<std::string>("data/text", "a");
    publish<int>("data/int", -1);
    publish<unsigned int>("data/unsigned", 1);
    publish<double>("data/double", 0.5);
    publish<long long>("data/long", 1LL << 40);
    publish_float("data/float", 2.5F);
    publish_setting();
    publish_command();
    publish_volatile();
    keep(dh::api::const_value<unsigned int>::create(remote(), "data/const", 4));
    mirror();
    settle();
    EXPECT_EQ(type_at("handler/data/bool"), "status value");
    EXPECT_EQ(type_at("handler/data/text"), "status value");
    EXPECT_EQ(type_at("handler/data/int"), "status value");
    EXPECT_EQ(type_at("handler/data/unsigned"), "status value");
    EXPECT_EQ(type_at("handler/data/float"), "pushed volatile value");
    EXPECT_EQ(local("handler/data/bool"), "true");
    EXPECT_EQ(local("handler/data/text"), R"("a")");
    EXPECT_EQ(local("handler/data/int"), "-1");
    EXPECT_EQ(local("handler/data/unsigned"), "1");
    EXPECT_EQ(local("handler/data/float"), "2.5");
    EXPECT_EQ(local("handler/data/double"), "0.5");
    EXPECT_EQ(local("handler/data/long"), "1099511627776");
    EXPECT_EQ(local("handler/data/now"), "1.25");
    EXPECT_EQ(local("handler/data/const"), "4");
    EXPECT_THAT(capabilities_at("handler/data/double"), ElementsAre("read"));
    EXPECT_THAT(capabilities_at("handler/data/long"), ElementsAre("read"));
    EXPECT_THAT(capabilities_at("handler/data/now"), ElementsAre("read"));
    EXPECT_THAT(capabilities_at("handler/command/measure"), ElementsAre("write"));
    EXPECT_THAT(capabilities_at("handler/control/power"),
                ElementsAre("read", "subscribe", "write"));
    EXPECT_TRUE(db_.find_leaf_node("handler/control/power")->subscription_supported());
    EXPECT_FALSE(db_.find_leaf_node("handler/data/double")->subscription_supported());
}

TEST_F(TreeMirror, ValuesFollowTheHandler) {
    const auto text = publish<std::string>("data/text", "a");
    const auto level = publish_float("data/float");
    mirror();
    ASSERT_TRUE(becomes("handler/data/text", R"("a")"));
    ASSERT_TRUE(becomes("handler/data/float", "-61 Value has not been set"));
    text->set("b");
    level->push(0.1F);
    EXPECT_TRUE(becomes("handler/data/text", R"("b")"));
    EXPECT_TRUE(becomes("handler/data/float", "0.10000000149011612"));
}

TEST_F(TreeMirror, PassedThroughValueIsTheOneOfTheMoment) {
    publish_volatile();
    mirror();
    ASSERT_TRUE(becomes("handler/data/now", "1.25"));
    owner_->volatile_value = 7.5F;
    EXPECT_EQ(local("handler/data/now"), "7.5");
}

TEST_F(TreeMirror, ObjectsArePassedThroughAsTheyAre) {
    class object_node final : public dh_db_leaf_node {
      public:
        using dh_db_leaf_node::dh_db_leaf_node;
        void get(const std::string& key, json::allocator& memory, json::value& out) override {
            json::add(out, key, json::value(test::parsed(R"({"a":[1,{"b":null}]})"), memory),
                      memory);
        }
    };
    keep(dh::api::create_node<object_node>(remote(), "data/object"));
    mirror();
    EXPECT_TRUE(becomes("handler/data/object", R"({"a":[1,{"b":null}]})"));
}

TEST_F(TreeMirror, CommandsReturnTheirResponseAndTheErrorsOfTheHandlerPassUnchanged) {
    publish_command();
    publish_setting();
    keep(dh::api::volatile_value<&handler_owner::get_failing>::create(remote(), "data/failing",
                                                                      owner_));
    mirror();
    settle();
    EXPECT_TRUE(db_.find_leaf_node("handler/command/measure")->write_returns_response());
    EXPECT_EQ(run_local("handler/command/measure", "true"), R"({"value":false})");
    EXPECT_EQ(run_local("handler/command/measure", "false"), R"({"value":true})");
    EXPECT_EQ(run_local("handler/command/measure", "1"),
              "-22 expected bool, found 32-bit unsigned integer");
    EXPECT_EQ(local("handler/command/measure"), "-95 Operation not supported: command/measure");
    EXPECT_EQ(local("handler/data/failing"), "42 no light");
    EXPECT_EQ(write_local("handler/control/power", "99"), "77 too much");
    EXPECT_EQ(write_local("handler/control/power", R"("x")"), "-22 expected float, found string");
    EXPECT_EQ(owner_->writes, 0);
}

TEST_F(TreeMirror, SettingHandsWritesThroughAndChangesOnlyWhenTheHandlerSaysSo) {
    const auto remote_node = keep(dh::api::create_node<clamping_setting>(remote(), "control/gain"));
    mirror();
    ASSERT_TRUE(becomes("handler/control/gain", "5.0"));
    const auto session = watch_local("handler/control/gain");
    EXPECT_EQ(write_local("handler/control/gain", "12.5"), "");
    EXPECT_EQ(local("handler/control/gain"), "5.0");
    remote_node->settle();
    EXPECT_TRUE(becomes("handler/control/gain", "10.0"));
    const strings expected{
        R"({"event":"value","path":"handler/control/gain","value":5.0,"initial":true})",
        R"({"event":"value","path":"handler/control/gain","value":10.0})"};
    EXPECT_TRUE(eventually([&] { return session->events() == expected; }));
}

TEST_F(TreeMirror, SettingThatWasNeverSetIsEmptyAndSendsNoFirstEvent) {
    publish_setting();
    mirror();
    ASSERT_TRUE(becomes("handler/control/power", "null"));
    const auto session = watch_local("handler/control/power");
    EXPECT_EQ(session->events(), strings{});
    EXPECT_EQ(write_local("handler/control/power", "2.5"), "");
    EXPECT_TRUE(becomes("handler/control/power", "2.5"));
    const strings expected{R"({"event":"value","path":"handler/control/power","value":2.5})"};
    EXPECT_TRUE(eventually([&] { return session->events() == expected; }));
}

TEST_F(TreeMirror, UpdateCallbackFiresForStatusFloatAndSetting) {
    const auto seen = std::make_shared<test::recorded_texts>();
    for (const char* path : {"handler/data/ready", "handler/data/level", "handler/control/gain"})
        proxy_->on_update(path, [seen, path, this] { seen->add(path + (" " + local(path))); });
    publish<bool>("data/ready", true);
    publish_float("data/level", 1.5F);
    keep(dh::api::create_node<clamping_setting>(remote(), "control/gain"));
    mirror();
    EXPECT_TRUE(eventually([&] {
        return seen->has("handler/data/ready true") && seen->has("handler/data/level 1.5") &&
               seen->has("handler/control/gain 5.0");
    }));
    EXPECT_EQ(seen->all().size(), 3U);
}

TEST_F(TreeMirror, AccessWhileTheHandlerIsAwayIsRefused) {
    publish_volatile();
    publish_setting();
    publish_command();
    mirror();
    settle();
    lose_handler();
    const auto away = [](const std::string& path) {
        return "11 subordinate device handler not available: " + path;
    };
    EXPECT_EQ(local("handler/data/now"), away("handler/data/now"));
    EXPECT_EQ(write_local("handler/control/power", "2"), away("handler/control/power"));
    EXPECT_EQ(run_local("handler/command/measure", "true"), away("handler/command/measure"));
    EXPECT_EQ(local("handler/control/power"), "null");
}

TEST_F(TreeMirror, NothingUnderAPartNamedDebugIsMirrored) {
    proxy_->exclude("/debug/");
    for (const char* path : {"debug/a", "debug/b/c", "data/debug/d", "data/x/debug/y/e"})
        publish<bool>(path, true);
    for (const char* path : {"data/debugger/f", "data/debug", "nodebug/g"})
        publish<bool>(path, true);
    mirror();
    settle();
    publish<bool>("data/debug/later", true);
    settle();
    EXPECT_THAT(mirrored_paths(),
                ElementsAre("handler/data/debug", "handler/data/debugger/f", "handler/nodebug/g"));
}

TEST_F(TreeMirror, ExcludedPathKeepsTheNodeOfItsOwner) {
    proxy_->exclude("handler/data/own");
    const auto own = proxy_->add_status_path<bool>("handler/data/own", false);
    publish<bool>("data/own", true);
    mirror();
    settle();
    EXPECT_EQ(db_.find_leaf_node("handler/data/own"), own);
    EXPECT_EQ(local("handler/data/own"), "false");
    lose_handler();
    EXPECT_EQ(db_.find_leaf_node("handler/data/own"), own);
    start_handler();
    mirror_fixture::publish<bool>("data/other", true);
    ASSERT_TRUE(becomes("handler/data/other", "true"));
    EXPECT_EQ(db_.find_leaf_node("handler/data/own"), own);
}

TEST_F(TreeMirror, ExplicitSubscriptionOfAnOwnerOnAnExcludedPathWorks) {
    proxy_->exclude("handler/data/level");
    const auto calls = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("handler/data/level", [calls] { ++*calls; });
    const auto level = publish_float("data/level", 1.5F);
    connection_->on_mirrored = [this](const auto& client) {
        proxy_->subscribe<float_node, float>(client, "data/level", "handler/data/level");
    };
    mirror();
    ASSERT_TRUE(becomes("handler/data/level", "1.5"));
    settle();
    *calls = 0;
    level->push(2.5F);
    ASSERT_TRUE(becomes("handler/data/level", "2.5"));
    settle();
    EXPECT_EQ(*calls, 1);
}

TEST_F(TreeMirror, ExcludedPathWithoutANodeIsFilledAndFiresItsCallback) {
    proxy_->exclude("handler/present");
    const auto seen = std::make_shared<test::recorded_texts>();
    proxy_->on_update("handler/present", [this, seen] { seen->add(local("handler/present")); });
    const auto present = publish<bool>("present", true);
    mirror();
    ASSERT_TRUE(eventually([&] { return seen->all() == strings{"true"}; }));
    present->set(false);
    EXPECT_TRUE(eventually([&] { return seen->all() == (strings{"true", "false"}); }));
}

// The owner of a "present" path clears it at a disconnect.
TEST_F(TreeMirror, ExcludedPathThatItsOwnerClearedIsFilledAgainOnReturn) {
    proxy_->exclude("handler/present");
    const auto seen = std::make_shared<test::recorded_texts>();
    proxy_->on_update("handler/present", [this, seen] { seen->add(local("handler/present")); });
    publish<bool>("present", true);
    mirror();
    ASSERT_TRUE(eventually([&] { return seen->all() == strings{"true"}; }));
    lose_handler();
    (*proxy_->get_path_node<dh::api::status_value<bool>>("handler/present"))->set(false);
    start_handler();
    publish<bool>("present", true);
    EXPECT_TRUE(becomes("handler/present", "true"));
    EXPECT_TRUE(eventually([&] { return seen->all() == (strings{"true", "true"}); }));
}

TEST_F(TreeMirror, NodeThatSomebodyElseMadeIsGivenTheValuesOfItsKind) {
    const auto own = proxy_->add_status_path<bool>("handler/data/ready", false);
    const auto other = proxy_->add_status_path<bool>("handler/data/name", false);
    publish<bool>("data/ready", true);
    publish<std::string>("data/name", "a");
    mirror();
    settle();
    EXPECT_EQ(db_.find_leaf_node("handler/data/ready"), own);
    EXPECT_EQ(local("handler/data/ready"), "true");
    EXPECT_EQ(local("handler/data/name"), "false");
    remote().remove_node("data/ready");
    settle();
    EXPECT_EQ(local("handler/data/ready"), "true");
}

TEST_F(TreeMirror, NodesKeepTheirValuesWhileTheHandlerIsAway) {
    publish<bool>("data/ready", true);
    publish_float("data/level", 1.5F);
    keep(dh::api::create_node<clamping_setting>(remote(), "control/gain"));
    mirror();
    settle();
    lose_handler();
    EXPECT_EQ(local("handler/data/ready"), "true");
    EXPECT_EQ(local("handler/data/level"), "1.5");
    EXPECT_EQ(local("handler/control/gain"), "5.0");
}

TEST_F(TreeMirror, ReturningHandlerWithOtherNodesIsFollowed) {
    publish<bool>("data/stays", true);
    publish<bool>("data/goes", true);
    publish_volatile();
    publish<std::string>("data/changes", "text");
    mirror();
    settle();
    lose_handler();
    start_handler();
    publish<bool>("data/stays", false);
    publish<bool>("data/new", true);
    publish_float("data/changes", 1.5F);
    settle();
    EXPECT_THAT(mirrored_paths(),
                ElementsAre("handler/data/changes", "handler/data/new", "handler/data/stays"));
    EXPECT_EQ(local("handler/data/stays"), "false");
    EXPECT_EQ(local("handler/data/changes"), "1.5");
    EXPECT_EQ(type_at("handler/data/changes"), "pushed volatile value");
}

TEST_F(TreeMirror, NodeMayChangeBetweenAllKindsOverRestarts) {
    publish<bool>("x", true);
    mirror();
    settle();
    ASSERT_TRUE(becomes("handler/x", "true"));
    lose_handler();
    start_handler();
    keep(dh::api::volatile_value<&handler_owner::get_volatile>::create(remote(), "x", owner_));
    settle();
    ASSERT_TRUE(becomes("handler/x", "1.25"));
    lose_handler();
    start_handler();
    keep(dh::api::config_param<&handler_owner::set_power>::create(remote(), "x", owner_));
    settle();
    ASSERT_TRUE(becomes("handler/x", "null"));
    lose_handler();
    start_handler();
    publish<unsigned int>("x", 3);
    settle();
    ASSERT_TRUE(becomes("handler/x", "3"));
    lose_handler();
    start_handler();
    keep(dh::api::command<&handler_owner::measure>::create(remote(), "x", owner_));
    settle();
    ASSERT_TRUE(becomes("handler/x", "-95 Operation not supported: x"));
    EXPECT_EQ(run_local("handler/x", "true"), R"({"value":false})");
}

TEST_F(TreeMirror, ConnectedHandlerAddsAndRemovesNodes) {
    mirror();
    settle();
    const auto added = publish<bool>("data/added", true);
    ASSERT_TRUE(becomes("handler/data/added", "true"));
    added->set(false);
    ASSERT_TRUE(becomes("handler/data/added", "false"));
    remote().remove_node("data/added");
    ASSERT_TRUE(eventually([&] { return !db_.contains("handler/data/added"); }));
    publish_float("data/added", 1.5F);
    EXPECT_TRUE(becomes("handler/data/added", "1.5"));
}

TEST_F(TreeMirror, SubscribersKeepANodeThatStaysAndARepeatedValueIsNoEvent) {
    publish<bool>("data/ready", true);
    publish_float("data/level", 1.5F);
    keep(dh::api::create_node<clamping_setting>(remote(), "control/gain"));
    mirror();
    settle();
    const auto ready = watch_local("handler/data/ready");
    const auto level = watch_local("handler/data/level");
    const auto gain = watch_local("handler/control/gain");
    for (const auto& session : {ready, level, gain})
        session->clear();
    lose_handler();
    start_handler();
    const auto returned = publish<bool>("data/ready", true);
    const auto returned_level = publish_float("data/level", 1.5F);
    keep(dh::api::create_node<clamping_setting>(remote(), "control/gain"));
    settle();
    EXPECT_EQ(ready->events(), strings{});
    EXPECT_EQ(level->events(), strings{});
    EXPECT_EQ(gain->events(), strings{});
    returned->set(false);
    returned_level->push(2.5F);
    EXPECT_TRUE(eventually([&] {
        return ready->events() ==
               strings{R"({"event":"value","path":"handler/data/ready","value":false})"};
    }));
    EXPECT_TRUE(eventually([&] {
        return level->events() ==
               strings{R"({"event":"value","path":"handler/data/level","value":2.5})"};
    }));
}

TEST_F(TreeMirror, SubscribersOfARemovedNodeAreTold) {
    publish<bool>("data/ready", true);
    mirror();
    ASSERT_TRUE(becomes("handler/data/ready", "true"));
    const auto session = watch_local("handler/data/ready");
    session->clear();
    remote().remove_node("data/ready");
    const strings expected{R"({"event":"ended","path":"handler/data/ready","reason":1})"};
    EXPECT_TRUE(eventually([&] { return session->events() == expected; }));
}

TEST_F(TreeMirror, EndOfMirroringEndsSubscriptionsAndKeepsNodes) {
    const auto ready = publish<bool>("data/ready", true);
    mirror();
    ASSERT_TRUE(becomes("handler/data/ready", "true"));
    const auto client = connection_->client();
    proxy_->unsubscribe_path(client, "");
    // A subscriber beside the mirror sees what the mirror would have seen.
    const auto observer = std::make_shared<test::recording_subscriber>("data/ready");
    client->add_subscriber(observer);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready true"); }));
    ready->set(false);
    publish<bool>("data/late", true);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready false"); }));
    EXPECT_EQ(mirrored_paths(), strings{"handler/data/ready"});
    EXPECT_EQ(local("handler/data/ready"), "true");
    client->remove_subscriber(observer);
}

TEST_F(TreeMirror, EndOfMirroringUnderTheClientsNameIsTheEndOfAll) {
    const auto ready = publish<bool>("data/ready", true);
    mirror();
    ASSERT_TRUE(becomes("handler/data/ready", "true"));
    const auto client = connection_->client();
    proxy_->unsubscribe_path(client, "other");
    ready->set(false);
    ASSERT_TRUE(becomes("handler/data/ready", "false"));
    proxy_->unsubscribe_path(client, "handler");
    const auto observer = std::make_shared<test::recording_subscriber>("data/ready");
    client->add_subscriber(observer);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready false"); }));
    ready->set(true);
    ASSERT_TRUE(eventually([&] { return observer->has("value data/ready true"); }));
    EXPECT_EQ(local("handler/data/ready"), "false");
    client->remove_subscriber(observer);
}

TEST_F(TreeMirror, FirstValueInErrorMakesNoStatusNodeAndIsForgottenAtTheNextGoodOne) {
    // Says that it is a bool, and is an error or a text first.
    class late_bool final : public dh::api::value_event_node {
      public:
        using dh::api::value_event_node::value_event_node;
        void say(const std::string& value) {
            const std::lock_guard lock(mutex_);
            json::document event_value = test::parsed(value);
            send_value_changed<json::value>(event_value);
        }
        void subscribe(std::shared_ptr<dh_session> session, const std::string& key,
                       json::allocator& memory, json::value& out,
                       std::unique_lock<std::mutex>& lock) override {
            const std::lock_guard value_lock(mutex_);
            dh_db_event_node::subscribe(session, key, memory, out, lock);
            const auto add = [](const char* name, json::allocator& pool, json::value& to) {
                json::value error(rapidjson::kObjectType);
                json::add(error, "code", -61, pool);
                json::add(error, "message", "not yet", pool);
                json::add(to, name, std::move(error), pool);
            };
            add(key.c_str(), memory, out);
            send_initial_value(session, add);
        }
        json::value get_info(json::allocator& memory) const override {
            json::value info(rapidjson::kObjectType);
            json::add(info, "valueType", "bool", memory);
            json::add(info, "capabilities", dh::api::capabilities({"read", "subscribe"}, memory),
                      memory);
            return info;
        }
        using dh::api::value_event_node::get_info;

      private:
        std::mutex mutex_;
    };
    const auto late = keep(dh::api::create_node<late_bool>(remote(), "data/late"));
    mirror();
    ASSERT_TRUE(eventually(
        [&] { return has_logged(3, "dh_proxy/exception_event", "data/late: not yet"); }));
    EXPECT_FALSE(db_.contains("handler/data/late"));
    late->say(R"("text")");
    ASSERT_TRUE(eventually([&] {
        return has_logged(4, "dh_client",
                          "msg: handler, event of data/late dropped: expected bool, found string");
    }));
    EXPECT_FALSE(db_.contains("handler/data/late"));
    late->say("true");
    EXPECT_TRUE(becomes("handler/data/late", "true"));
}

TEST_F(TreeMirror, NoNodeAndNoSubscriberIsDoubledByReconnections) {
    const auto updates = std::make_shared<std::atomic<int>>(0);
    proxy_->on_update("handler/data/ready", [updates] { ++*updates; });
    publish<bool>("data/ready", true);
    publish_setting();
    publish_volatile();
    mirror();
    settle();
    const strings paths = mirrored_paths();
    const auto node = db_.find_leaf_node("handler/data/ready");
    for (int i = 0; i < 5; ++i) {
        lose_handler();
        start_handler();
        publish<bool>("data/ready", true);
        publish_setting();
        publish_volatile();
        settle();
    }
    EXPECT_EQ(mirrored_paths(), paths);
    EXPECT_EQ(db_.find_leaf_node("handler/data/ready"), node);
    const auto ready = publish<bool>("data/ready2", true);
    settle();
    EXPECT_EQ(*updates, 6);
    EXPECT_EQ(lines_of("dh_db"), 0U);
}

TEST_F(TreeMirror, TwoHandlersAreMirroredBesideEachOther) {
    dh_server other("other", test::root() + "/other");
    const auto ready = dh::api::status_value<bool>::create(other.db(), "data/ready", false, 0);
    publish<bool>("data/ready", true);
    mirror();
    const auto other_connection = test::mirroring_connection::create(proxy_);
    other_connection->mirror("/other", "slot/2");
    EXPECT_TRUE(becomes("handler/data/ready", "true"));
    EXPECT_TRUE(becomes("slot/2/data/ready", "false"));
    stop_handler();
    ready->set(true);
    EXPECT_TRUE(becomes("slot/2/data/ready", "true"));
    other_connection->end();
}

TEST_F(TreeMirror, ManyNodesOfAHandlerAreAllMirrored) {
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i)
        publish<unsigned int>(fmt::format("data/{:04}", i), static_cast<unsigned>(i));
    mirror();
    ASSERT_TRUE(eventually([&] { return mirrored_paths().size() == count; }));
    EXPECT_EQ(local("handler/data/2999"), "2999");
}

}  // namespace
