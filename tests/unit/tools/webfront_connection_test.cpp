#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "tests/unit/support/pipes.h"
#include "tools/webfront/connection.h"

namespace {

using state = webfront_head_state;

constexpr std::string_view whole_head = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";

// A browser, and the front's connection to it.
struct browser_and_front {
    void send(std::string_view bytes) const {
        ASSERT_EQ(write(browser.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    test_socketpair pair;
    unique_fd browser = std::move(pair.a);
    webfront_connection front{std::move(pair.b)};
};

}  // namespace

TEST(webfront_connection, reads_a_head_in_pieces) {
    browser_and_front both;
    EXPECT_EQ(both.front.read_head(), state::incomplete);  // nothing has arrived
    both.send(whole_head.substr(0, 7));
    EXPECT_EQ(both.front.read_head(), state::incomplete);
    both.send(whole_head.substr(7));
    EXPECT_EQ(both.front.read_head(), state::complete);
    EXPECT_EQ(both.front.head().target, "/x");
    EXPECT_EQ(both.front.poll_events(), POLLIN);
}

TEST(webfront_connection, closes_when_the_browser_leaves_before_its_head) {
    browser_and_front both;
    both.browser.reset();
    EXPECT_EQ(both.front.read_head(), state::incomplete);
    EXPECT_FALSE(both.front.is_open());
}

TEST(webfront_connection, stays_open_after_its_answer_until_the_browser_closes) {
    browser_and_front both;
    both.front.start_answer("answer");
    EXPECT_EQ(read_all(both.browser.get()), "answer");
    EXPECT_TRUE(both.front.is_open());
    both.send("more input");
    both.front.continue_answer();
    EXPECT_TRUE(both.front.is_open());
    both.browser.reset();
    both.front.continue_answer();
    EXPECT_FALSE(both.front.is_open());
}

TEST(webfront_connection, sends_a_long_answer_in_steps) {
    browser_and_front both;
    std::string answer(8 << 20, 'a');
    both.front.start_answer(answer);
    EXPECT_EQ(both.front.poll_events(), POLLOUT);
    reader_thread browser(std::move(both.browser));
    while (both.front.poll_events() == POLLOUT && both.front.is_open()) {
        pollfd wait = {both.front.fd(), POLLOUT, 0};
        ASSERT_EQ(poll(&wait, 1, 20000), 1);
        both.front.continue_answer();
    }
    EXPECT_EQ(browser.text(), answer);
}

TEST(webfront_connection, expires_with_a_408_if_part_of_a_head_has_arrived) {
    browser_and_front both;
    both.send("GET");
    EXPECT_EQ(both.front.read_head(), state::incomplete);
    both.front.expire();
    EXPECT_FALSE(both.front.is_open());
    EXPECT_TRUE(read_all(both.browser.get()).starts_with("HTTP/1.0 408 "));
}

TEST(webfront_connection, expires_without_an_answer_if_nothing_has_arrived) {
    browser_and_front both;
    EXPECT_EQ(both.front.read_head(), state::incomplete);
    both.front.expire();
    EXPECT_FALSE(both.front.is_open());
    EXPECT_EQ(read_all(both.browser.get()), "");
}

TEST(webfront_connection, expires_in_the_middle_of_an_answer) {
    browser_and_front both;
    both.front.start_answer(std::string(8 << 20, 'a'));
    both.front.expire();
    EXPECT_FALSE(both.front.is_open());
}

TEST(webfront_connection, refuses_with_a_503_and_drops_the_input) {
    browser_and_front both;
    both.send(whole_head);
    both.front.refuse();
    EXPECT_FALSE(both.front.is_reading());
    EXPECT_TRUE(read_all(both.browser.get()).starts_with("HTTP/1.0 503 "));
    both.front.continue_answer();
    EXPECT_TRUE(both.front.is_open());
}

TEST(webfront_connection, gives_an_answer_less_time_than_a_head) {
    browser_and_front both;
    auto head_deadline = both.front.deadline();
    both.front.start_answer("a");
    EXPECT_LT(both.front.deadline(), head_deadline);
}

TEST(webfront_connection, gives_a_browser_that_takes_its_answer_more_time) {
    browser_and_front both;
    both.front.start_answer(std::string(8 << 20, 'a'));
    auto deadline = both.front.deadline();
    reader_thread browser(std::move(both.browser));
    while (both.front.deadline() == deadline) {
        pollfd wait = {both.front.fd(), POLLOUT, 0};
        ASSERT_EQ(poll(&wait, 1, 20000), 1);
        both.front.continue_answer();
    }
    EXPECT_GT(both.front.deadline(), deadline);
    both.front = webfront_connection({});
}

TEST(webfront_connection, turns_away_a_browser_that_has_sent_its_request) {
    browser_and_front both;
    both.send(whole_head);
    both.front.turn_away("full");
    both.front = webfront_connection({});  // closes: unread input would reset the connection
    EXPECT_EQ(read_all(both.browser.get()), "full");
}
