#include "running_poll.hpp"

#include "eventually.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>

using namespace std::chrono_literals;
using test::eventually;

namespace {

constexpr auto always = [] { return true; };
constexpr auto never = [] { return false; };

// One who waits in another thread for the gap between two polls.
struct waiting_one {
    running_poll& poll;
    std::atomic<unsigned> told{0};
    std::atomic<bool> acted{false};
    std::future<void> waiting = std::async(std::launch::async, [this] {
        poll.between_polls([this] { told.fetch_add(1); }, [this] { acted = true; });
    });

    bool waits() {
        return eventually([this] { return told > 0; });
    }
};

}  // namespace

TEST(RunningPoll, NobodyWaitsWhereNothingIsPolled) {
    running_poll poll;
    unsigned told = 0;
    unsigned acted = 0;
    const auto act = [&] { poll.between_polls([&] { ++told; }, [&] { ++acted; }); };
    act();
    EXPECT_TRUE(poll.begin_if(always));
    poll.end();
    act();
    EXPECT_EQ(told, 0U);
    EXPECT_EQ(acted, 2U);
}

TEST(RunningPoll, PollThatIsNotWantedDoesNotBegin) {
    running_poll poll;
    EXPECT_FALSE(poll.begin_if(never));
    unsigned told = 0;
    poll.between_polls([&] { ++told; }, [] {});
    EXPECT_EQ(told, 0U);
}

TEST(RunningPoll, WaitLastsUntilTheEndOfThePollAndIsToldOfAtOnce) {
    running_poll poll;
    ASSERT_TRUE(poll.begin_if(always));
    waiting_one other{poll};
    ASSERT_TRUE(other.waits());
    EXPECT_FALSE(other.acted);
    poll.end();
    other.waiting.get();
    EXPECT_TRUE(other.acted);
}

TEST(RunningPoll, NextPollThatBeginsAtOnceLetsTheOneWhoWaitsGoFirst) {
    running_poll poll;
    ASSERT_TRUE(poll.begin_if(always));
    waiting_one other{poll};
    ASSERT_TRUE(other.waits());
    poll.end();
    EXPECT_FALSE(poll.begin_if([&] { return !other.acted; }));
    other.waiting.get();
}

TEST(RunningPoll, ActionThatThrowsLetsTheNextPollBegin) {
    running_poll poll;
    EXPECT_THROW(poll.between_polls([] {}, [] { throw std::runtime_error("refused"); }),
                 std::runtime_error);
    auto next = std::async(std::launch::async, [&] { return poll.begin_if(always); });
    EXPECT_TRUE(next.get());
    poll.end();
}

TEST(RunningPoll, LongWaitIsToldOfAgain) {
    running_poll poll;
    ASSERT_TRUE(poll.begin_if(always));
    waiting_one other{poll};
    EXPECT_TRUE(eventually([&] { return other.told >= 2; }));
    poll.end();
    other.waiting.get();
}
