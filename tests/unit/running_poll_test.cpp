#include "running_poll.hpp"

#include "eventually.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

using namespace std::chrono_literals;
using test::eventually;

TEST(RunningPoll, NobodyWaitsWhereNothingIsPolled) {
    running_poll poll;
    unsigned told = 0;
    poll.await_end([&] { ++told; });
    poll.begin();
    poll.end();
    poll.await_end([&] { ++told; });
    EXPECT_EQ(told, 0U);
}

TEST(RunningPoll, WaitLastsUntilTheEndOfThePollAndIsToldOfAtOnce) {
    running_poll poll;
    std::atomic<unsigned> told{0};
    poll.begin();
    auto waiting =
        std::async(std::launch::async, [&] { poll.await_end([&] { told.fetch_add(1); }); });
    ASSERT_TRUE(eventually([&] { return told > 0; }));
    EXPECT_EQ(waiting.wait_for(0s), std::future_status::timeout);
    poll.end();
    waiting.get();
}

TEST(RunningPoll, WaitEndsThoughTheNextPollBeginsAtOnce) {
    running_poll poll;
    std::atomic<unsigned> told{0};
    poll.begin();
    auto waiting =
        std::async(std::launch::async, [&] { poll.await_end([&] { told.fetch_add(1); }); });
    ASSERT_TRUE(eventually([&] { return told > 0; }));
    poll.end();
    poll.begin();
    EXPECT_EQ(waiting.wait_for(30s), std::future_status::ready);
    poll.end();
}

TEST(RunningPoll, LongWaitIsToldOfAgain) {
    running_poll poll;
    std::atomic<unsigned> told{0};
    poll.begin();
    auto waiting =
        std::async(std::launch::async, [&] { poll.await_end([&] { told.fetch_add(1); }); });
    EXPECT_TRUE(eventually([&] { return told >= 2; }));
    poll.end();
    waiting.get();
}
