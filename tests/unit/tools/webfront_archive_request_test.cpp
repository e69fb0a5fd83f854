#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "platform/qorlink.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"
#include "tools/webfront/archive_request.h"

namespace {

using namespace std::chrono_literals;

constexpr auto patience = 20000ms;
constexpr std::string_view head = "HTTP/1.0 200 OK\r\nContent-Type: application/x-tar\r\n\r\n";

// A daemon that takes one request and keeps its connection.
class one_daemon {
public:
    // It answers with `answer`, and closes the connection then if `closes`.
    one_daemon(std::string answer, bool closes) : listener_(qorlink_server_socket(path().c_str(), 0600)) {
        thread_ = std::jthread([this, closes, text = std::move(answer)] {
            char message[100];
            int fd = -1;
            const int length = qorlink_recv(listener_.get(), message, sizeof message, &fd);
            connection_.reset(fd);
            message_.assign(message, static_cast<size_t>(std::max(length, 0)));
            (void)send(fd, text.data(), text.size(), MSG_NOSIGNAL);
            if (closes) {
                connection_.reset();
            }
        });
    }

    std::string path() const { return folder_.path("socket"); }
    std::string message() {
        thread_.join();
        return message_;
    }

private:
    temp_dir folder_;
    unique_fd listener_;
    unique_fd connection_;
    std::string message_;
    std::jthread thread_;
};

}  // namespace

TEST(webfront_request_archive, returns_a_socket_that_begins_with_the_archive) {
    const std::string archive(1000, 'a');
    one_daemon daemon(std::string(head) + archive, true);
    webfront_browser_watch nobody(-1);
    const webfront_archive got = webfront_request_archive(daemon.path(), &nobody, patience);
    EXPECT_EQ(got.error, "");
    ASSERT_TRUE(got.body);
    EXPECT_EQ(read_all(got.body.get()), archive);
    EXPECT_EQ(daemon.message(), std::string("/debug.tgz\0full", 15));
}

TEST(webfront_request_archive, gives_up_when_the_daemon_does_not_answer_in_time) {
    one_daemon daemon("", false);
    webfront_browser_watch nobody(-1);
    const webfront_archive got = webfront_request_archive(daemon.path(), &nobody, 50ms);
    EXPECT_FALSE(got.body);
    EXPECT_TRUE(got.error.starts_with("HTTP/1.0 502 ")) << got.error;
}

TEST(webfront_request_archive, has_neither_archive_nor_error_when_the_browser_has_gone) {
    one_daemon daemon("", false);
    test_socketpair browser;
    browser.a.reset();
    webfront_browser_watch watch(browser.b.get());
    const webfront_archive got = webfront_request_archive(daemon.path(), &watch, patience);
    EXPECT_FALSE(got.body);
    EXPECT_EQ(got.error, "");
}

TEST(webfront_browser_watch, drops_what_a_browser_sends_and_notices_its_end) {
    test_socketpair browser;
    test_pipe other;
    webfront_browser_watch watch(browser.b.get());
    ASSERT_EQ(write(browser.a.get(), "more", 4), 4);
    EXPECT_TRUE(watch.wait(patience, other.out.get()));
    EXPECT_TRUE(watch.wait(0ms, other.out.get()));
    browser.a.reset();
    EXPECT_FALSE(watch.wait(patience, other.out.get()));
}
