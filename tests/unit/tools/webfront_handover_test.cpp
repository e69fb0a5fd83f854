#include <gtest/gtest.h>

#include "platform/qorlink.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"
#include "tools/webfront/handover.h"

namespace {

webfront_job job_for(unique_fd client) {
    webfront_job job;
    job.client = std::move(client);
    job.request = "/x";
    job.since = std::chrono::steady_clock::now();
    return job;
}

}  // namespace

TEST(webfront_hand_over, sends_the_connection_and_the_request) {
    temp_dir folder;
    std::string path = folder.path("socket");
    unique_fd daemon(qorlink_server_socket(path.c_str(), 0600));
    ASSERT_TRUE(daemon);
    test_socketpair pair;
    std::string message(100, '\0');
    int received = -1;
    std::thread receiver([&] {
        int length = qorlink_recv(daemon.get(), message.data(), static_cast<int>(message.size()), &received);
        message.resize(length > 0 ? static_cast<size_t>(length) : 0);
    });
    std::string answer = webfront_hand_over(path, job_for(std::move(pair.b)));
    receiver.join();
    EXPECT_EQ(answer, "");
    EXPECT_EQ(message, "/x");
    unique_fd client(received);
    ASSERT_EQ(write(client.get(), "hello", 5), 5);
    client.reset();
    EXPECT_EQ(read_all(pair.a.get()), "hello");
}

TEST(webfront_hand_over, answers_502_with_the_socket_and_the_reason_if_there_is_no_daemon) {
    temp_dir folder;
    std::string path = folder.path("missing");
    std::string answer = webfront_hand_over(path, job_for({}));
    EXPECT_TRUE(answer.starts_with("HTTP/1.0 502 ")) << answer;
    EXPECT_NE(answer.find(path), std::string::npos) << answer;
}

TEST(webfront_hand_over, answers_503_after_too_long_in_the_queue) {
    webfront_job job = job_for({});
    job.since -= webfront_queue_time + std::chrono::seconds(1);
    EXPECT_TRUE(webfront_hand_over("/nowhere", job).starts_with("HTTP/1.0 503 "));
}
