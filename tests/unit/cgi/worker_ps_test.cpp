#include "cgi/worker_ps.h"

#include <stdint.h>

#include "cgi/worker.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/threads.h"

namespace {

void* as_argument(int fd) {
    return reinterpret_cast<void*>(static_cast<intptr_t>(fd));
}

class ps_worker : public testing::Test {
protected:
    void SetUp() override {
        if (access("/bin/ps", X_OK) != 0) {
            GTEST_SKIP() << "needs /bin/ps";
        }
    }
    void TearDown() override { wait_for_workers(); }
};

TEST_F(ps_worker, sends_the_process_list_as_a_text_download) {
    browser client;
    ASSERT_TRUE(worker_start(run_ps_request, as_argument(client.hand_over())));
    std::string answer = client.answer();
    std::string head = download_head("text/plain", "psdump.txt");
    ASSERT_EQ(answer.substr(0, head.size()), head);
    std::string first_line = answer.substr(head.size(), answer.find('\n', head.size()) - head.size());
    EXPECT_NE(first_line.find("PID"), std::string::npos) << first_line;
}

TEST_F(ps_worker, serves_several_browsers_at_once) {
    browser clients[3];
    for (browser& client : clients) {
        ASSERT_TRUE(worker_start(run_ps_request, as_argument(client.hand_over())));
    }
    for (browser& client : clients) {
        EXPECT_NE(client.answer().find("PID"), std::string::npos);
    }
}

TEST_F(ps_worker, closes_the_connection_of_a_browser_that_has_gone) {
    browser client;
    int fd = client.hand_over();
    client.go_away();
    ASSERT_TRUE(worker_start(run_ps_request, as_argument(fd)));
    EXPECT_TRUE(eventually([fd] { return fcntl(fd, F_GETFD) < 0; }));
}

TEST(ps_worker_start, that_cannot_detach_answers_with_a_server_error) {
    browser client;
    start_detached(run_ps_request, as_argument(client.hand_over()));
    EXPECT_EQ(client.answer(), broken_server_answer);
    wait_for_workers();
}

TEST(ps_worker_start, with_descriptor_0_ends_the_daemon) {
    EXPECT_EXIT(
        {
            forbid_core_files();
            run_ps_request(as_argument(0));
        },
        testing::KilledBySignal(SIGABRT), "request:406: run_ps_request: Assertion `data' failed\\.");
}

}  // namespace
