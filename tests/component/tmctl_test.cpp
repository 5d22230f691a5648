// The tool as a whole against real sockets: a handler of the server library,
// and servers that do not keep to the protocol.

#include "command.hpp"
#include "config_param.hpp"
#include "const_value.hpp"
#include "device_handler_api.hpp"
#include "eventually.hpp"
#include "host.hpp"
#include "line_server.hpp"
#include "status_value.hpp"
#include "tmctl_runs.hpp"
#include "wire.hpp"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

namespace {

namespace exit_status = tmctl::exit_status;
using test::outcome;
using test::run;
using test::running_tool;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

// A folder of the test's own, short enough for sockets.
class scratch_folder {
  public:
    scratch_folder() {
        if (mkdtemp(name_) == nullptr)
            throw std::runtime_error("no folder for sockets");
    }
    ~scratch_folder() { std::filesystem::remove_all(name_); }
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;

    // Relative to where the test runs, so that no prefix of the host is put before it.
    std::string socket(const std::string& name) const {
        return std::filesystem::relative(std::filesystem::path(name_) / name).string();
    }

  private:
    char name_[17] = "/tmp/tmctlXXXXXX";
};

class settings {
  public:
    void set_power(unsigned, float power) {
        if (power > 20.0F)
            throw dh_error{-34, "beyond the \x1b[2J booster"};
    }
    void set_text(std::string) {}
    std::string measure(int port) { return "measured " + std::to_string(port); }
};

class TmctlWithHandler : public testing::Test {
  protected:
    using power = dh::api::config_param<&settings::set_power>;
    using text = dh::api::config_param<&settings::set_text>;

    TmctlWithHandler()
        : socket_(folder_.socket("tm")),
          server_("test_handler", socket_),
          alarm_(dh::api::status_value<unsigned>::create(server_.db(), "alarms/severity", 0, 0)) {
        dh::api::const_value<unsigned>::create(server_.db(), "present", 1U);
        power::create(server_.db(), "config/power", owner_, 0U);
        text::create(server_.db(), "config/text", owner_);
        dh::api::command<&settings::measure>::create(server_.db(), "otdr/measure", owner_);
    }

    std::vector<std::string> words(std::vector<std::string> words) const {
        words.insert(words.begin(), {"--socket", socket_});
        return words;
    }
    outcome on_handler(std::vector<std::string> command) const {
        return run(words(std::move(command)));
    }

    const scratch_folder folder_;
    const std::string socket_;
    const std::shared_ptr<settings> owner_ = std::make_shared<settings>();
    dh_server server_;
    const std::shared_ptr<dh::api::status_value<unsigned>> alarm_;
};

TEST_F(TmctlWithHandler, GetShowsValuesBelowEachOther) {
    const outcome got = on_handler({"get", "present", "alarms/severity"});
    EXPECT_EQ(got.status, exit_status::done);
    EXPECT_EQ(got.out, "present          1\nalarms/severity  0\n");
    EXPECT_THAT(got.err, IsEmpty());
}

TEST_F(TmctlWithHandler, GetAsJsonIsOneObjectALine) {
    EXPECT_EQ(on_handler({"get", "--json", "present", "config/text"}).out,
              "{\"path\":\"present\",\"value\":1}\n{\"path\":\"config/text\",\"value\":null}\n");
}

TEST_F(TmctlWithHandler, AFailedEntryIsReportedAndTheOthersAreShown) {
    const outcome got = on_handler({"get", "nowhere", "present"});
    EXPECT_EQ(got.status, exit_status::failed);
    EXPECT_EQ(got.out, "present  1\n");
    EXPECT_EQ(got.err, "tmctl: nowhere: -2 No such path: nowhere\n");
}

TEST_F(TmctlWithHandler, MorePathsThanARequestHoldsAreAllAsked) {
    std::vector<std::string> command{"get"};
    command.resize(3001, "present");
    const outcome got = on_handler(command);
    EXPECT_EQ(got.status, exit_status::done);
    EXPECT_EQ(std::count(got.out.begin(), got.out.end(), '\n'), 3000);
}

TEST_F(TmctlWithHandler, SetWritesNumbersAndTexts) {
    const outcome set = on_handler({"set", "config/power", "-2.5", "config/text", "power"});
    EXPECT_EQ(set.status, exit_status::done) << set.err;
    EXPECT_THAT(set.out, IsEmpty());
    EXPECT_EQ(on_handler({"get", "config/power", "config/text"}).out,
              "config/power  -2.5\nconfig/text   power\n");
}

TEST_F(TmctlWithHandler, SetTakesJsonAsTextWhereItIsToldSo) {
    EXPECT_EQ(on_handler({"set", "--string", "config/text", "7"}).status, exit_status::done);
    EXPECT_EQ(on_handler({"get", "--json", "config/text"}).out,
              "{\"path\":\"config/text\",\"value\":\"7\"}\n");
}

TEST_F(TmctlWithHandler, ARefusedWriteIsReportedWithoutItsControlCharacters) {
    const outcome set = on_handler({"set", "config/power", "25", "config/text", "a"});
    EXPECT_EQ(set.status, exit_status::failed);
    EXPECT_EQ(set.err, "tmctl: config/power: -34 beyond the \\u001b[2J booster\n");
    EXPECT_EQ(on_handler({"get", "config/text"}).out, "config/text  a\n");
}

TEST_F(TmctlWithHandler, AValueOfTheWrongTypeIsReported) {
    const outcome set = on_handler({"set", "config/power", "loud"});
    EXPECT_EQ(set.status, exit_status::failed);
    EXPECT_THAT(set.err, StartsWith("tmctl: config/power: -22 expected"));
}

TEST_F(TmctlWithHandler, RunShowsTheResponse) {
    const outcome ran = on_handler({"run", "otdr/measure", "2"});
    EXPECT_EQ(ran.status, exit_status::done) << ran.err;
    EXPECT_EQ(ran.out, "otdr/measure  measured 2\n");
    EXPECT_EQ(on_handler({"run", "--json", "otdr/measure", "2"}).out,
              "{\"path\":\"otdr/measure\",\"value\":\"measured 2\"}\n");
}

TEST_F(TmctlWithHandler, LsShowsKindAndTypeOfTheNodesUnderAPrefix) {
    const outcome all = on_handler({"ls"});
    EXPECT_EQ(all.status, exit_status::done);
    EXPECT_THAT(all.out, HasSubstr("alarms/severity  status value  unsigned int\n"));
    EXPECT_THAT(all.out, HasSubstr("otdr/measure     command       int\n"));
    EXPECT_EQ(on_handler({"ls", "alarms"}).out, "alarms/severity  status value  unsigned int\n");
    EXPECT_THAT(on_handler({"ls", "alarm"}).out, IsEmpty());
}

TEST_F(TmctlWithHandler, LsAsJsonHoldsPathAndInfo) {
    json::document node;
    const std::string out = on_handler({"ls", "--json", "present"}).out;
    ASSERT_TRUE(wire::parse(out.substr(0, out.find('\n')), node)) << out;
    EXPECT_EQ(json::to<std::string>(node["path"]), "present");
    EXPECT_EQ(json::to<std::string>(node["info"]["type"]), "const value");
}

TEST_F(TmctlWithHandler, InfoTellsWhatANodeIs) {
    const outcome told = on_handler({"info", "present", "nowhere"});
    EXPECT_EQ(told.status, exit_status::failed);
    EXPECT_THAT(told.out, StartsWith("present\n  "));
    EXPECT_THAT(told.out, HasSubstr("const value"));
    EXPECT_THAT(told.err, HasSubstr("nowhere: -2"));
}

TEST_F(TmctlWithHandler, HistoryIsNewestFirst) {
    alarm_->set(1);
    alarm_->set(2);
    const outcome told = on_handler({"history", "2"});
    EXPECT_EQ(told.status, exit_status::done);
    EXPECT_THAT(told.out, testing::MatchesRegex("[0-9T:.-]+Z  alarms/severity  2\n[0-9T:.-]+Z  "
                                                "alarms/severity  1\n"));
    EXPECT_EQ(on_handler({"history", "1025"}).status, exit_status::usage);
}

TEST_F(TmctlWithHandler, VersionNamesTheServer) {
    EXPECT_THAT(on_handler({"version"}).out,
                testing::MatchesRegex("test_handler [0-9.]+, protocol 1\n"));
}

TEST_F(TmctlWithHandler, WatchShowsChangesUntilItIsInterrupted) {
    running_tool watch(words({"watch", "alarms/severity"}));
    ASSERT_TRUE(watch.shows("alarms/severity  0  (initial)\n"));
    alarm_->set(3);
    ASSERT_TRUE(watch.shows("alarms/severity  3\n"));
    watch.interrupt();
    EXPECT_EQ(watch.join(), exit_status::done);
}

TEST_F(TmctlWithHandler, WatchReportsAPathThatIsNotThere) {
    running_tool watch(words({"watch", "nowhere", "alarms/severity"}));
    // The event may come before the reply that tells of the other path.
    ASSERT_TRUE(watch.shows("(initial)"));
    ASSERT_TRUE(test::eventually([&] { return !watch.err().empty(); }));
    watch.interrupt();
    EXPECT_EQ(watch.join(), exit_status::failed);
    EXPECT_THAT(watch.err(), HasSubstr("nowhere: -2"));
}

TEST_F(TmctlWithHandler, WatchEndsWhenNoSubscriptionIsLeft) {
    EXPECT_EQ(on_handler({"watch", "nowhere"}).status, exit_status::failed);
    running_tool watch(words({"watch", "/alarms/severity"}));
    ASSERT_TRUE(watch.shows("(initial)"));
    server_.db().remove_node("alarms/severity");
    EXPECT_EQ(watch.join(), exit_status::failed);
    EXPECT_THAT(watch.out(), HasSubstr("alarms/severity  ended: the node was removed\n"));
}

TEST_F(TmctlWithHandler, WatchTreeTellsOfNodesThatComeAndGo) {
    running_tool watch(words({"watch", "--tree", "ppm"}));
    // The tool says nothing before the first change, so changes come until it sees one.
    ASSERT_TRUE(test::eventually([&] {
        dh::api::const_value<unsigned>::create(server_.db(), "ppm/0/present", 1U);
        server_.db().remove_node("ppm/0/present");
        return watch.out().find("ppm/0/present  removed\n") != std::string::npos;
    }));
    EXPECT_THAT(watch.out(), HasSubstr("ppm/0/present  added  const value  unsigned int\n"));
    watch.interrupt();
    EXPECT_EQ(watch.join(), exit_status::done);
}

TEST_F(TmctlWithHandler, WatchAsJsonIsTheEventsThemselves) {
    running_tool watch(words({"watch", "--json", "alarms/severity"}));
    ASSERT_TRUE(watch.shows("\n"));
    json::document event;
    const std::string out = watch.out();
    ASSERT_TRUE(wire::parse(out.substr(0, out.find('\n')), event));
    EXPECT_EQ(json::to<std::string>(event["event"]), "value");
    EXPECT_TRUE(json::to<bool>(event["initial"]));
    EXPECT_TRUE(event["time"].IsInt64());
}

TEST_F(TmctlWithHandler, AnotherKindOfCardHasNoChannels) {
    const outcome shown = on_handler({"channels"});
    EXPECT_EQ(shown.status, exit_status::failed);
    EXPECT_THAT(shown.err, HasSubstr("the server publishes no such channels"));
}

// The nodes of one channel, and the WSS that attenuates it.
class TmctlChannels : public TmctlWithHandler {
  protected:
    template <class T>
    using status = std::shared_ptr<dh::api::status_value<T>>;

    TmctlChannels() : wss_socket_(folder_.socket("wss")), wss_("wss", wss_socket_) {
        dh::api::const_value<float>::create(server_.db(), "control/data/edfa/defaultAttenuation",
                                            12.0F);
        dh::api::const_value<float>::create(server_.db(), "control/data/express/defaultAttenuation",
                                            12.0F);
        power::create(wss_.db(), "config/wss/channel/5/attenuation", owner_, 5U);
    }

    template <class T>
    status<T> node(dh_server& server, const std::string& path, T value) {
        return dh::api::status_value<T>::create(server.db(), path, std::move(value), 0);
    }

    std::vector<std::string> channel_words(std::vector<std::string> more) const {
        std::vector<std::string> all = words({"channels", "5", "--wss-socket", wss_socket_});
        all.insert(all.end(), more.begin(), more.end());
        return all;
    }

    void command_attenuation(const char* value) const {
        ASSERT_EQ(
            run({"--socket", wss_socket_, "set", "config/wss/channel/5/attenuation", value}).status,
            exit_status::done);
    }

    const std::string wss_socket_;
    dh_server wss_;
    const status<float> wanted_ = node(server_, "control/data/5/wantedPower", 4.0F);
    const status<float> rx_ = node(server_, "control/data/5/rxPower", -2.0F);
    const status<float> tx_ = node(server_, "control/data/5/txPower", 2.0F);
    const status<std::string> mode_ =
        node(server_, "control/data/5/opticalControlMode", std::string("power"));
    const status<std::string> port_ = node(server_, "control/data/5/portMode", std::string("edfa"));
    const status<unsigned> loss_ = node(server_, "alarms/client/6/rx/lossOfSignal/severity", 0U);
    const status<double> attenuation_ = node(wss_, "data/wss/channel/5/attenuation", 12.0);
};

TEST_F(TmctlChannels, ShowsAChannelWithItsAttenuation) {
    const outcome shown = run(channel_words({}));
    EXPECT_EQ(shown.status, exit_status::done) << shown.err;
    EXPECT_THAT(shown.out, HasSubstr(" 5   4.00  -2.00   2.00  -2.00 12.00 power edfa    "
                                     "regulating <#######|   ]\n"));
}

TEST_F(TmctlChannels, WithoutTheWssHandlerTheAttenuationIsADash) {
    const outcome shown = run(words({"channels", "5", "--wss-socket", folder_.socket("nobody")}));
    EXPECT_EQ(shown.status, exit_status::done) << shown.err;
    EXPECT_THAT(shown.out, HasSubstr(" -2.00     - power edfa"));
}

TEST_F(TmctlChannels, AChannelThatTheServerDoesNotHaveIsReported) {
    const outcome shown = run(words({"channels", "5-6", "--wss-socket", wss_socket_}));
    EXPECT_EQ(shown.status, exit_status::failed);
    EXPECT_THAT(shown.err, HasSubstr("control/data/6/txPower: -2"));
    EXPECT_THAT(shown.out, HasSubstr(" 5   4.00"));
}

TEST_F(TmctlChannels, AsJsonIsOneObjectAChannel) {
    json::document channel;
    const outcome shown = run(channel_words({"--json"}));
    ASSERT_TRUE(wire::parse(shown.out.substr(0, shown.out.find('\n')), channel)) << shown.out;
    EXPECT_EQ(json::to<int>(channel["channel"]), 5);
    EXPECT_EQ(json::to<std::string>(channel["state"]), "regulating");
}

TEST_F(TmctlChannels, LiveFollowsTheValuesUntilItIsInterrupted) {
    running_tool live(channel_words({"--live", "--interval", "0.01"}));
    ASSERT_TRUE(live.shows("regulating"));
    tx_->set(4.2F);
    attenuation_->set(10.5);
    ASSERT_TRUE(live.shows("4.20  +0.20 10.50 power edfa    fine"));
    loss_->set(1);
    ASSERT_TRUE(live.shows("dark"));
    attenuation_->set(12.0);
    ASSERT_TRUE(live.shows("parked"));
    live.interrupt();
    EXPECT_EQ(live.join(), exit_status::done);
}

TEST_F(TmctlChannels, UntilSettledWaitsAndSumsUp) {
    running_tool waiting(
        channel_words({"--live", "--interval", "0.01", "--until", "settled", "--quiet", "0.01"}));
    ASSERT_TRUE(waiting.shows("regulating"));
    command_attenuation("11.0");
    command_attenuation("10.9");
    tx_->set(4.25F);
    EXPECT_EQ(waiting.join(), exit_status::done) << waiting.err();
    EXPECT_THAT(waiting.out(), HasSubstr("channels settled           1 (within 0.7 dB)\n"));
    EXPECT_THAT(waiting.out(), HasSubstr("most cycles to its band    1, channel 5\n"));
    EXPECT_THAT(waiting.out(), HasSubstr("largest difference left    +0.25 dB, channel 5\n"));
}

TEST_F(TmctlChannels, SummaryGoesToTheFileThatIsNamed) {
    const std::string file =
        (std::filesystem::temp_directory_path() / ("tmctl_summary_" + std::to_string(getpid())))
            .string();
    running_tool waiting(
        channel_words({"--until", "settled", "--quiet", "0.01", "--summary", file}));
    command_attenuation("11.0");
    tx_->set(4.25F);
    EXPECT_EQ(waiting.join(), exit_status::done) << waiting.err();
    EXPECT_THAT(waiting.out(), Not(HasSubstr("channels settled")));
    std::stringstream summary;
    summary << std::ifstream(file).rdbuf();
    EXPECT_THAT(summary.str(), HasSubstr("channels settled           1 (within 0.7 dB)\n"));
    std::filesystem::remove(file);
}

TEST_F(TmctlChannels, SummaryThatCannotBeWrittenIsAFailure) {
    running_tool waiting(channel_words(
        {"--until", "settled", "--quiet", "0.01", "--summary", "/nonexistent/summary"}));
    tx_->set(4.25F);
    EXPECT_EQ(waiting.join(), exit_status::failed);
    EXPECT_THAT(waiting.err(), HasSubstr("cannot write /nonexistent/summary"));
}

TEST_F(TmctlChannels, UntilAStateWaitsForIt) {
    running_tool waiting(channel_words({"--until", "parked"}));
    loss_->set(1);
    EXPECT_EQ(waiting.join(), exit_status::done);
    EXPECT_THAT(waiting.out(), HasSubstr("parked"));
}

TEST_F(TmctlChannels, WhatDoesNotComeAboutInTimeIsNamed) {
    const outcome shown = run(channel_words({"--until", "settled", "--time-limit", "0.05"}));
    EXPECT_EQ(shown.status, exit_status::failed);
    EXPECT_THAT(shown.err, HasSubstr("channel 5 is not settled after 0.05 s: regulating"));
}

TEST_F(TmctlChannels, AWaitThatIsInterruptedHasItsOwnStatus) {
    running_tool waiting(channel_words({"--live", "--interval", "0.01", "--until", "parked"}));
    ASSERT_TRUE(waiting.shows("regulating"));
    waiting.interrupt();
    EXPECT_EQ(waiting.join(), exit_status::interrupted);
}

TEST(TmctlWithoutServer, NobodyListensIsKnownAtOnce) {
    const scratch_folder folder;
    for (const char* command : {"get", "info", "watch"}) {
        const outcome got = run({"--socket", folder.socket("nobody"), command, "a"});
        EXPECT_EQ(got.status, exit_status::not_connected);
        EXPECT_THAT(got.err, HasSubstr("nobody: not connected: No such file or directory\n"));
        EXPECT_THAT(got.out, IsEmpty());
    }
}

TEST(TmctlWithoutServer, ASocketPathThatIsTooLongIsRefused) {
    const outcome got = run({"--socket", std::string(200, 'a'), "version"});
    EXPECT_EQ(got.status, exit_status::not_connected);
    EXPECT_THAT(got.err, HasSubstr("not connected"));
}

TEST(TmctlWithoutServer, AnInterfaceThatIsNotThereIsNotConnected) {
    EXPECT_EQ(run({"--host", "fe80::1%nowhere0", "version"}).status, exit_status::not_connected);
}

TEST(TmctlWithoutServer, UsageGoesToTheErrorStreamAndHelpToTheOutput) {
    const outcome wrong = run({"fetch"});
    EXPECT_EQ(wrong.status, exit_status::usage);
    EXPECT_THAT(wrong.err, HasSubstr("usage: tmctl"));
    EXPECT_THAT(wrong.out, IsEmpty());
    const outcome help = run({"--help"});
    EXPECT_EQ(help.status, exit_status::done);
    EXPECT_THAT(help.out, StartsWith("usage: tmctl"));
}

// Answers the first request of one client with the bytes it was given, and hangs up.
class canned_server {
  public:
    canned_server(const std::string& path, std::string answer) : answer_(std::move(answer)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(listener_, 1) != 0)
            throw std::runtime_error("cannot listen on " + path);
        thread_ = std::thread([this] { serve(); });
    }
    ~canned_server() {
        thread_.join();
        close(listener_);
    }
    canned_server(const canned_server&) = delete;
    canned_server& operator=(const canned_server&) = delete;

  private:
    void serve() const {
        const int client = accept(listener_, nullptr, nullptr);
        char request[4096];
        EXPECT_GT(recv(client, request, sizeof request, 0), 0);
        std::size_t sent = 0;
        while (sent < answer_.size()) {
            const ssize_t now =
                send(client, answer_.data() + sent, answer_.size() - sent, MSG_NOSIGNAL);
            if (now <= 0)
                break;  // the tool has had enough
            sent += static_cast<std::size_t>(now);
        }
        close(client);
    }

    const std::string answer_;
    const int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread thread_;
};

class TmctlWithHostileServer : public testing::Test {
  protected:
    outcome answered(const std::string& answer, const std::vector<std::string>& command) {
        const scratch_folder folder;
        const canned_server server(folder.socket("tm"), answer);
        std::vector<std::string> words{"--socket", folder.socket("tm")};
        words.insert(words.end(), command.begin(), command.end());
        return run(words);
    }
    outcome get(const std::string& answer) { return answered(answer, {"get", "a"}); }
};

TEST_F(TmctlWithHostileServer, ALineWithoutEndIsGivenUp) {
    const outcome got = get(std::string(std::size_t{17} << 20, 'x'));
    EXPECT_EQ(got.status, exit_status::not_connected);
    EXPECT_THAT(got.err, HasSubstr("bad reply: a line over 16 MiB"));
}

TEST_F(TmctlWithHostileServer, ALineThatIsNotJsonEndsIt) {
    const outcome got = get("{]\n");
    EXPECT_EQ(got.status, exit_status::not_connected);
    EXPECT_THAT(got.err, HasSubstr("not JSON"));
}

TEST_F(TmctlWithHostileServer, HangingUpEndsIt) {
    const outcome got = get("");
    EXPECT_EQ(got.status, exit_status::not_connected);
    EXPECT_THAT(got.err, HasSubstr("connection lost"));
}

TEST_F(TmctlWithHostileServer, RepliesThatFitNothingEndIt) {
    for (const char* reply :
         {"7", "[]", "{}", R"({"id":1})", R"({"id":2,"result":[]})", R"({"id":"1","result":[]})",
          R"({"id":null,"result":[]})", R"({"jsonrpc":"2.0","id":-1,"result":[]})"}) {
        const outcome got = get(std::string(reply) + "\n");
        EXPECT_EQ(got.status, exit_status::not_connected) << reply;
        EXPECT_THAT(got.err, HasSubstr("bad reply")) << reply;
    }
}

TEST_F(TmctlWithHostileServer, ResultsOfTheWrongFormAreAFailure) {
    for (const char* result : {"7", "null", "{}", "[]", R"([{"value":1},{"value":1}])", "[7]",
                               "[{}]", R"([{"error":7}])", R"([{"error":{"code":"x"}}])"}) {
        const outcome got =
            get(R"({"jsonrpc":"2.0","id":1,"result":)" + std::string(result) + "}\n");
        EXPECT_EQ(got.status, exit_status::failed) << result;
        EXPECT_THAT(got.err, StartsWith("tmctl: ")) << result;
        EXPECT_THAT(got.out, IsEmpty()) << result;
    }
}

TEST_F(TmctlWithHostileServer, OtherCommandsStandWrongResultsToo) {
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"set", "a", "1"}, {"ls"}, {"info", "a"}, {"history"}, {"channels", "1"}}) {
        const outcome got = answered(R"({"jsonrpc":"2.0","id":1,"result":7})"
                                     "\n",
                                     command);
        EXPECT_NE(got.status, exit_status::done) << command[0];
        EXPECT_THAT(got.err, Not(IsEmpty())) << command[0];
    }
}

TEST_F(TmctlWithHostileServer, MissingMembersAreShownAsMissing) {
    EXPECT_EQ(
        answered("{\"id\":1,\"result\":{\"nodes\":[7,{},{\"path\":\"a\",\"info\":1}]}}\n", {"ls"})
            .out,
        "-  -  -\n-  -  -\na  -  -\n");
    EXPECT_EQ(answered("{\"id\":1,\"result\":{\"entries\":[{}]}}\n", {"history"}).out, "-  -  -\n");
    EXPECT_EQ(answered("{\"id\":1,\"result\":{}}\n", {"version"}).out, "- -, protocol -\n");
}

TEST_F(TmctlWithHostileServer, ARefusedRequestIsToldWithItsCode) {
    const outcome got =
        get(R"({"jsonrpc":"2.0","id":1,"error":{"code":-32601,"message":"no\u001b"}})"
            "\n");
    EXPECT_EQ(got.status, exit_status::failed);
    EXPECT_EQ(got.err, "tmctl: -32601 no\\u001b\n");
}

TEST_F(TmctlWithHostileServer, TooManySessionsIsNoConnection) {
    const outcome got =
        get(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32000,"message":"too many sessions"}})"
            "\n");
    EXPECT_EQ(got.status, exit_status::not_connected);
    EXPECT_THAT(got.err, HasSubstr("too many sessions"));
}

TEST_F(TmctlWithHostileServer, EventsThatNobodyAskedForArePassedOver) {
    const outcome got =
        get("{\"method\":\"event\",\"params\":{\"event\":\"value\"}}\n"
            "{\"method\":7}\n{\"method\":\"event\"}\n\n"
            "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":[{\"value\":\"\\u001bc\"}]}\n");
    EXPECT_EQ(got.status, exit_status::done);
    EXPECT_EQ(got.out, "a  \\u001bc\n");
}

// What a channel's path holds, once the channel has settled.
std::string settled_value(std::string_view path) {
    if (path.ends_with("/opticalControlMode"))
        return "\"power\"";
    if (path.ends_with("/portMode"))
        return "\"edfa\"";
    return path.ends_with("/severity") ? "0" : "4.0";
}

TEST(TmctlEvents, AnEventThatOvertookTheReplyOfItsSubscribeIsTheNewerValue) {
    const scratch_folder folder;
    const std::string socket = folder.socket("server");
    const test::line_server server(socket, [](const test::line_server::request& asked) {
        json::document params;
        wire::parse(asked.params, params);
        std::string events;
        std::string old_values;
        for (const json::value& path : params["paths"].GetArray()) {
            const std::string_view text(path.GetString(), path.GetStringLength());
            const std::string value = settled_value(text);
            events += R"({"jsonrpc":"2.0","method":"event","params":{"event":"value","path":")" +
                      std::string(text) + R"(","time":1,"value":)" + value + "}}\n";
            old_values += (old_values.empty() ? R"({"value":)" : R"(,{"value":)") +
                          (asked.method == "subscribe" ? "0.5" : value) + "}";
        }
        const std::string reply = test::line_server::reply(asked, "[" + old_values + "]");
        return asked.method == "subscribe" ? events + reply : reply;
    });
    const outcome shown =
        run({"--socket", socket, "channels", "5", "--wss-socket", folder.socket("none"), "--until",
             "settled", "--quiet", "0.01", "--time-limit", "20"});
    EXPECT_EQ(shown.status, exit_status::done) << shown.err;
}

TEST_F(TmctlWithHostileServer, WatchStandsEventsOfTheWrongForm) {
    const outcome got = answered(
        "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":[{\"value\":1}]}\n"
        "{\"method\":\"event\",\"params\":{}}\n"
        "{\"method\":\"event\",\"params\":{\"event\":7}}\n"
        "{\"method\":\"event\",\"params\":{\"event\":\"value\",\"time\":\"now\"}}\n"
        "{\"method\":\"event\",\"params\":{\"event\":\"error\",\"error\":7,\"path\":[1]}}\n"
        "{\"method\":\"event\",\"params\":{\"event\":\"\\u001b]\"}}\n",
        {"watch", "a"});
    EXPECT_EQ(got.status, exit_status::not_connected);
    EXPECT_EQ(got.out, "now  -  -\n-  [1]  error - -\n-  -  \\u001b]\n");
}

}  // namespace
