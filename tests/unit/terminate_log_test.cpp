#include "terminate_log.hpp"

#include "dh_error.hpp"
#include "msg_log.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

namespace {

// Ends the process by an exception on a thread of its own, which nobody can take.
template <class Exception>
void end_by(const Exception& exception) {
    log_terminating_exception();
    std::thread([&] { throw exception; }).join();
}

class TerminateLog : public testing::Test {
  protected:
    TerminateLog() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

struct unheard_of {};

}  // namespace

TEST_F(TerminateLog, NamesTypeAndTextOfAStandardException) {
    EXPECT_DEATH(end_by(std::runtime_error("no light")),
                 "3 tm_velt_init msg: The process ends by an exception that nobody took: "
                 "std::runtime_error: no light \\[terminate_log:");
}

TEST_F(TerminateLog, NamesCodeAndTextOfAClientsException) {
    EXPECT_DEATH(end_by(dh_client_exception{107, "not connected"}),
                 "took: dh_client_exception 107: not connected \\[");
}

TEST_F(TerminateLog, NamesCodeAndTextOfANodesError) {
    EXPECT_DEATH(end_by(dh_error(-61, "bad value")), "took: dh_error -61: bad value \\[");
}

TEST_F(TerminateLog, NamesTheTypeOfAnythingElse) {
    EXPECT_DEATH(end_by(42), "took: int \\[");
    EXPECT_DEATH(end_by(unheard_of{}), "took: .*unheard_of \\[");
}

TEST_F(TerminateLog, SaysSoWhereThereIsNoException) {
    EXPECT_DEATH(
        {
            log_terminating_exception();
            std::terminate();
        },
        "took: no exception \\[");
}

TEST_F(TerminateLog, HasTheLastWordWhateverOtherThreadsLog) {
    EXPECT_DEATH(
        {
            std::thread([] {
                for (;;)
                    MSG_LOG("busy", msg_log::failure) << "msg: More.";
            }).detach();
            end_by(42);
        },
        "took: int \\[terminate_log:[0-9]*\\]\n$");
}
