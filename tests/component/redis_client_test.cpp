#include "redis_client.hpp"

#include "eventually.hpp"
#include "host.hpp"
#include "process.hpp"
#include "redis_server.hpp"
#include "test_root.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using testing::HasSubstr;

namespace {

constexpr unsigned limit = 10;  // s

class RedisClient : public testing::Test {
  protected:
    RedisClient() { test::empty_root(); }

    static redis_client& client() { return redis_client::instance(); }

    // What a read that must fail says.
    template <class T>
    static std::string error_of(const std::string& key, unsigned timeout = limit) {
        try {
            client().get<T>(key, timeout);
        } catch (const redis_error& error) {
            return error.what();
        }
        return "no error";
    }
};

// In place of the store: answers each connection with what a shell command
// prints, whatever it is asked.
class RedisClientOfANoise : public RedisClient {
  protected:
    void answer(const std::string& command) {
        const std::string socket = test::root() + "/var/run/redis/redis.sock";
        std::filesystem::create_directories(std::filesystem::path(socket).parent_path());
        server_.emplace(
            "/usr/bin/socat",
            std::vector<std::string>{"UNIX-LISTEN:" + socket + ",fork", "EXEC:" + command},
            test::process::environment(), test::root());
        ASSERT_TRUE(test::eventually([&] { return takes_connections(socket); }));
    }

    static bool takes_connections(const std::string& socket) {
        test::process visitor("/usr/bin/socat", {"-u", "OPEN:/dev/null", "UNIX-CONNECT:" + socket},
                              test::process::environment(), test::root());
        return visitor.end() == test::exited_with(0);
    }

    std::optional<test::process> server_;
};

class RedisClientOfAStore : public RedisClient {
  protected:
    test::redis_server store_;
};

}  // namespace

TEST_F(RedisClientOfAStore, ReadsEachTypeOfValue) {
    store_.set("/text", "VLT-Q-K47");
    store_.set("/empty", "");
    store_.set("/number", "-42");
    store_.set("/power", "-17.25");
    EXPECT_EQ(client().get<std::string>("/text", limit), "VLT-Q-K47");
    EXPECT_EQ(client().get<std::string>("/empty", limit), "");
    EXPECT_EQ(client().get<int>("/number", limit), -42);
    EXPECT_EQ(client().get<double>("/power", limit), -17.25);
}

TEST_F(RedisClientOfAStore, TrueAndOneAreTrueAndAnyOtherTextIsFalse) {
    for (const char* text : {"true", "1"}) {
        store_.set("/present", text);
        EXPECT_TRUE(client().get<bool>("/present", false, limit)) << text;
    }
    for (const char* text : {"false", "0", "", "TRUE", "yes", "11"}) {
        store_.set("/present", text);
        EXPECT_FALSE(client().get<bool>("/present", true, limit)) << text;
    }
}

TEST_F(RedisClientOfAStore, ConnectionIsNotLeftToTheCommandsThatAreRun) {
    const auto sockets_of_a_command = [] {
        return host::shell_reader("ls -l /proc/self/fd | grep -c 'socket:' || true").read_all();
    };
    std::thread([&] {
        const std::string before = sockets_of_a_command();
        store_.set("key", "value");
        EXPECT_EQ(client().get<std::string>("key", limit), "value");
        EXPECT_EQ(sockets_of_a_command(), before);
    }).join();
}

TEST_F(RedisClientOfAStore, KeysAreTakenToTheLetter) {
    const std::string key = "/v1/a key\r\nwith %s and * in it";
    store_.set(key, "found");
    EXPECT_EQ(client().get<std::string>(key, limit), "found");
}

TEST_F(RedisClientOfAStore, MissingKeyGivesTheDefaultOrAnError) {
    EXPECT_TRUE(client().get<bool>("/missing", true, limit));
    EXPECT_EQ(client().get<std::string>("/missing", "else", limit), "else");
    EXPECT_EQ(error_of<std::string>("/missing"), "no such key: /missing");
}

TEST_F(RedisClientOfAStore, TextThatIsNoNumberGivesTheDefaultOrAnError) {
    for (const char* text : {"", "seven", "7 ", "7x", "99999999999999999999"}) {
        store_.set("/number", text);
        EXPECT_EQ(client().get<int>("/number", 5, limit), 5) << text;
        EXPECT_THAT(error_of<int>("/number"), HasSubstr("/number is not of the wanted kind"));
    }
    for (const char* text : {"nan", "inf", "1e999", "1,5"}) {
        store_.set("/power", text);
        EXPECT_EQ(client().get<double>("/power", 5.0, limit), 5.0) << text;
    }
}

TEST_F(RedisClientOfAStore, KeyThatHoldsNoTextGivesTheDefaultOrAnError) {
    store_.run({"RPUSH", "/list", "true"});
    EXPECT_FALSE(client().get<bool>("/list", false, limit));
    EXPECT_THAT(error_of<std::string>("/list"), HasSubstr("WRONGTYPE"));
    store_.set("/text", "still answered");
    EXPECT_EQ(client().get<std::string>("/text", limit), "still answered");
}

TEST_F(RedisClientOfAStore, StoreThatHangsCostsTheTimeOutAndIsAskedAgain) {
    store_.set("/first", "1");
    store_.set("/second", "2");
    EXPECT_EQ(client().get<int>("/first", limit), 1);
    store_.freeze();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(client().get<int>("/first", 7, 1), 7);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_THAT(error_of<int>("/first", 1), HasSubstr("does not answer"));
    store_.thaw();
    // Not the answer to the question before, which comes now.
    EXPECT_EQ(client().get<int>("/second", limit), 2);
}

TEST_F(RedisClientOfAStore, StoreThatDiesAndReturnsIsFoundAgain) {
    store_.set("/number", "1");
    EXPECT_EQ(client().get<int>("/number", limit), 1);
    store_.kill();
    EXPECT_EQ(client().get<int>("/number", 7, limit), 7);
    store_.start();
    EXPECT_EQ(client().get<int>("/number", 7, limit), 7);
    store_.set("/number", "2");
    EXPECT_EQ(client().get<int>("/number", limit), 2);
}

TEST_F(RedisClientOfAStore, StoreThatWasRestartedBetweenTwoReadsIsFoundAtOnce) {
    store_.set("/number", "1");
    EXPECT_EQ(client().get<int>("/number", limit), 1);
    store_.kill();
    store_.start();
    store_.set("/number", "2");
    EXPECT_EQ(client().get<int>("/number", limit), 2);
}

TEST_F(RedisClientOfAStore, ThreadsReadBesideEachOther) {
    constexpr int threads = 4;
    for (int i = 0; i < threads; ++i)
        store_.set("/" + std::to_string(i), std::to_string(i));
    std::vector<std::future<bool>> readers;
    for (int i = 0; i < threads; ++i)
        readers.push_back(std::async(std::launch::async, [i] {
            bool all_right = true;
            for (int turn = 0; turn < 100; ++turn)
                all_right &= client().get<int>("/" + std::to_string(i), limit) == i;
            return all_right;
        }));
    for (auto& reader : readers)
        EXPECT_TRUE(reader.get());
}

TEST_F(RedisClientOfANoise, WhatIsNoAnswerIsAnError) {
    answer("echo hello");
    EXPECT_THAT(error_of<std::string>("/text"), HasSubstr("does not answer"));
}

TEST_F(RedisClientOfANoise, AnswerThatDoesNotEndIsNotWaitedFor) {
    test::put_file("/drip", "printf '$100\\r\\n'\nwhile sleep 0.1; do printf x; done\n");
    answer("sh " + test::root() + "/drip");
    EXPECT_THAT(error_of<std::string>("/text", 1), HasSubstr("does not answer"));
}

TEST_F(RedisClientOfANoise, AnswerOfAnySizeIsNotKept) {
    test::put_file("/flood", "printf '$500000000\\r\\n'\nexec cat /dev/zero\n");
    answer("sh " + test::root() + "/flood");
    EXPECT_THAT(error_of<std::string>("/text", 60), HasSubstr("does not answer"));
}

TEST_F(RedisClient, StoreThatIsNotThereGivesTheDefaultOrAnError) {
    EXPECT_TRUE(client().get<bool>("/present", true, limit));
    EXPECT_THAT(error_of<std::string>("/text"), HasSubstr("no connection to the key-value store"));
}
