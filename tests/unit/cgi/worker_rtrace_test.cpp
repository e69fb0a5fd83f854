#include "cgi/worker_rtrace.h"

#include <sys/socket.h>

#include <chrono>

#include "cgi/worker.h"
#include "monitor/rtrace.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/threads.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

const std::string head = download_head("application/octet-stream", "rtrace");

// For sources that do not examine other processes and start no program, so the tests can run on any machine.
rtrace_request* new_request(int client_fd, int32_t interval, uint32_t mask) {
    auto request = worker_new_record<rtrace_request>();
    request->client = unique_fd(client_fd);
    request->interval = interval;
    request->mask = mask;
    return request.release();
}

void start(browser& client, int32_t interval, uint32_t mask) {
    ASSERT_TRUE(worker_start(run_rtrace_request, new_request(client.hand_over(), interval, mask)));
}

std::string first_bytes(const browser& client, size_t count) {
    std::string got(count, '\0');
    ssize_t length = recv(client.own_end(), got.data(), count, MSG_WAITALL);
    got.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return got;
}

}  // namespace

TEST(rtrace_worker, streams_records_after_the_header_of_a_download) {
    browser client;
    start(client, 1000, rtrace_meminfo);
    EXPECT_EQ(first_bytes(client, head.size()), head);
    std::string header = first_bytes(client, 20);
    EXPECT_EQ(header.substr(0, 4), std::string("\x08\0\0\0", 4));
    EXPECT_EQ(header[16], 1);
    EXPECT_EQ(first_bytes(client, 9), "MemTotal:");
    client.go_away();
    wait_for_workers();
}

TEST(rtrace_worker, ends_within_a_second_if_the_browser_closes_in_a_long_interval) {
    for (int32_t interval : {60, 2147483647, -1, INT32_MIN}) {
        browser client;
        start(client, interval, rtrace_smapstot);
        EXPECT_EQ(first_bytes(client, head.size()), head);
        auto left = clock_type::now();
        client.go_away();
        wait_for_workers();
        EXPECT_LT(clock_type::now() - left, 1s) << interval;
    }
}

TEST(rtrace_worker, ends_if_the_browser_has_closed_before_it_begins) {
    for (int i = 0; i < 100; i++) {
        browser client;
        client.go_away();
        start(client, 0, rtrace_meminfo);
        wait_for_workers();
    }
}

TEST(rtrace_worker, that_cannot_detach_answers_with_a_server_error) {
    browser client;
    start_detached(run_rtrace_request, new_request(client.hand_over(), 1, rtrace_meminfo));
    EXPECT_EQ(client.answer(), broken_server_answer);
    wait_for_workers();
}

TEST(rtrace_worker, leaves_no_descriptor_open) {
    std::set<int> before = open_fds();
    {
        browser client;
        start(client, 1, rtrace_meminfo | rtrace_diskinfo);
        EXPECT_EQ(first_bytes(client, head.size()), head);
    }
    wait_for_workers();
    EXPECT_EQ(open_fds(), before);
}
