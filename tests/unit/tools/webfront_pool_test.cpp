#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <semaphore>

#include "tests/unit/support/pipes.h"
#include "tools/webfront/pool.h"

namespace {

constexpr int patience_ms = 20000;

// Waits for an event. The target's kernel was once seen to interrupt this call although no signal has a
// handler.
bool has_event(pollfd* wait) {
    return TEMP_FAILURE_RETRY(poll(wait, 1, patience_ms)) == 1;
}

// Waits until the pool has answers, and takes them.
std::vector<webfront_answered> next_answers(webfront_pool* pool) {
    pollfd wait = {pool->answered_event(), POLLIN, 0};
    EXPECT_TRUE(has_event(&wait));
    return pool->take_answered();
}

bool is_closed(const test_pipe& one) {
    pollfd wait = {one.out.get(), POLLIN, 0};
    return has_event(&wait) && (wait.revents & POLLHUP) != 0;
}

}  // namespace

TEST(webfront_pool, returns_a_connection_with_its_answer) {
    webfront_pool pool(2, 10, [](const webfront_job& job) { return "did " + job.request; });
    test_pipe one;
    int number = one.in.get();
    ASSERT_TRUE(pool.submit(&one.in, "this"));
    EXPECT_FALSE(one.in);
    std::vector<webfront_answered> answers = next_answers(&pool);
    ASSERT_EQ(answers.size(), 1U);
    EXPECT_EQ(answers[0].answer, "did this");
    EXPECT_EQ(answers[0].client.get(), number);
    EXPECT_EQ(pool.held(), 0U);
}

TEST(webfront_pool, closes_a_connection_without_an_answer) {
    webfront_pool pool(1, 10, [](const webfront_job&) { return std::string(); });
    test_pipe one;
    ASSERT_TRUE(pool.submit(&one.in, "x"));
    EXPECT_TRUE(is_closed(one));
    EXPECT_TRUE(pool.take_answered().empty());
}

TEST(webfront_pool, refuses_a_job_when_the_queue_is_full) {
    std::counting_semaphore<8> begun(0), go_on(0);
    webfront_pool pool(1, 2, [&](const webfront_job& job) {
        begun.release();
        go_on.acquire();
        return job.request;
    });
    test_pipe clients[4];
    ASSERT_TRUE(pool.submit(&clients[0].in, "0"));
    begun.acquire();
    EXPECT_TRUE(pool.submit(&clients[1].in, "1"));
    EXPECT_TRUE(pool.submit(&clients[2].in, "2"));
    EXPECT_FALSE(pool.submit(&clients[3].in, "3"));
    EXPECT_TRUE(clients[3].in);
    EXPECT_EQ(pool.held(), 3U);
    go_on.release(3);
    std::string order;
    while (order.size() < 3) {
        for (const webfront_answered& one : next_answers(&pool)) {
            order += one.answer;
        }
    }
    EXPECT_EQ(order, "012");
    EXPECT_EQ(pool.held(), 0U);
}

TEST(webfront_pool, closes_queued_connections_when_it_ends) {
    std::counting_semaphore<8> begun(0), go_on(0);
    test_pipe clients[2];
    {
        webfront_pool pool(1, 10, [&](const webfront_job&) {
            begun.release();
            go_on.acquire();
            return std::string("late");
        });
        ASSERT_TRUE(pool.submit(&clients[0].in, "0"));
        begun.acquire();
        ASSERT_TRUE(pool.submit(&clients[1].in, "1"));
        go_on.release(2);
    }
    EXPECT_TRUE(is_closed(clients[0]));
    EXPECT_TRUE(is_closed(clients[1]));
}
