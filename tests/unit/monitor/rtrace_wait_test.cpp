#include "monitor/rtrace_wait.h"

#include <signal.h>

#include <chrono>
#include <thread>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

constexpr int64_t minute_ms = 60000;

int wait_for_client(int fd, int64_t ms) {
    pollfd client = rtrace_client(fd);
    return rtrace_poll(&client, 1, deadline(ms));
}

}  // namespace

TEST(rtrace_wait, lasts_until_the_deadline) {
    test_socketpair client;
    int64_t begun = monotonic_ns();
    EXPECT_EQ(wait_for_client(client.b.get(), 30), 0);
    EXPECT_GE(monotonic_ns() - begun, 30000000);
}

TEST(rtrace_wait, polls_once_after_the_deadline) {
    test_socketpair client;
    EXPECT_EQ(wait_for_client(client.b.get(), 0), 0);
    client.a.reset();
    EXPECT_EQ(wait_for_client(client.b.get(), 0), -1);
}

TEST(rtrace_wait, of_any_length_ends_when_the_client_leaves) {
    for (int64_t seconds : {int64_t{60}, int64_t{2147483647}, int64_t{4294967295}}) {
        test_socketpair client;
        auto begun = clock_type::now();
        std::thread leaver([&client] {
            std::this_thread::sleep_for(20ms);
            client.a.reset();
        });
        EXPECT_EQ(wait_for_client(client.b.get(), seconds * 1000), -1) << seconds;
        leaver.join();
        EXPECT_LT(clock_type::now() - begun, 1s) << seconds;
    }
}

TEST(rtrace_wait, ends_when_the_client_closes_its_writing_side) {
    test_socketpair client;
    shutdown(client.a.get(), SHUT_WR);
    EXPECT_EQ(wait_for_client(client.b.get(), minute_ms), -1);
}

TEST(rtrace_wait, is_not_ended_by_data_from_the_client) {
    test_socketpair client;
    ASSERT_EQ(write(client.a.get(), "x", 1), 1);
    EXPECT_EQ(wait_for_client(client.b.get(), 10), 0);
}

TEST(rtrace_wait, ends_when_the_reader_of_a_pipe_leaves) {
    test_pipe pipe;
    EXPECT_EQ(wait_for_client(pipe.in.get(), 0), 0);
    pipe.out.reset();
    EXPECT_EQ(wait_for_client(pipe.in.get(), minute_ms), -1);
}

TEST(rtrace_wait, returns_how_many_others_are_ready) {
    test_socketpair client;
    test_pipe silent;
    test_pipe talking;
    ASSERT_EQ(write(talking.in.get(), "x", 1), 1);
    pollfd fds[] = {rtrace_client(client.b.get()),
                    {silent.out.get(), POLLIN, 0},
                    {talking.out.get(), POLLIN, 0},
                    {-1, POLLIN, 0}};
    EXPECT_EQ(rtrace_poll(fds, 4, deadline(minute_ms)), 1);
    EXPECT_EQ(fds[1].revents, 0);
    EXPECT_NE(fds[2].revents, 0);
}

TEST(rtrace_wait, treats_a_closed_descriptor_as_a_client_that_has_left) {
    test_socketpair client;
    int number = client.b.get();
    client.b.reset();
    EXPECT_EQ(wait_for_client(number, minute_ms), -1);
}
