#include "cgi/waiting_browser.h"

#include "common/monotonic.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/support/temp_dir.h"

namespace {

class waiting_browser : public testing::Test {
protected:
    void TearDown() override {
        close_listener();
        set_pop(false);
    }
    // A file of `bytes`, open for reading; not owned.
    int dump_of(const std::string& bytes) {
        return open(folder.write_file("dump", bytes).c_str(), O_RDONLY | O_CLOEXEC);
    }
    temp_dir folder;
};

bool is_open(int fd) {
    return fcntl(fd, F_GETFD) >= 0;
}

TEST_F(waiting_browser, is_kept_without_an_answer) {
    browser client;
    set_listener(unique_fd(client.hand_over()));
    EXPECT_TRUE(client.is_waiting());
}

TEST_F(waiting_browser, is_closed_unanswered_when_another_one_waits) {
    browser first;
    browser second;
    set_listener(unique_fd(first.hand_over()));
    set_listener(unique_fd(second.hand_over()));
    EXPECT_EQ(first.answer(), "");
    EXPECT_TRUE(second.is_waiting());
}

TEST_F(waiting_browser, is_closed_unanswered_on_demand) {
    browser client;
    set_listener(unique_fd(client.hand_over()));
    close_listener();
    EXPECT_EQ(client.answer(), "");
}

TEST_F(waiting_browser, can_be_closed_if_none_waits) {
    std::set<int> before = open_fds();
    close_listener();
    close_listener();
    EXPECT_EQ(open_fds(), before);
}

TEST_F(waiting_browser, asks_for_a_stored_dump_as_last_set) {
    EXPECT_FALSE(is_pop());
    set_pop(true);
    EXPECT_TRUE(is_pop());
    browser client;
    set_listener(unique_fd(client.hand_over()));
    close_listener();
    EXPECT_TRUE(is_pop());
    set_pop(false);
    EXPECT_FALSE(is_pop());
}

TEST_F(waiting_browser, gets_a_pushed_dump_byte_by_byte_whatever_its_size) {
    for (size_t size : {0, 1, 2047, 2048, 2049, 4095, 4096, 4097, 10000}) {
        browser client;
        std::string bytes = odd_bytes(size);
        int in_fd = dump_of(bytes);
        int out_fd = client.daemon_end();
        set_listener(unique_fd(client.hand_over()));
        EXPECT_EQ(handle_request_push(in_fd, "core"), 0);
        EXPECT_FALSE(is_open(in_fd));
        EXPECT_FALSE(is_open(out_fd));
        EXPECT_TRUE(client.answer() == dump_head("core") + bytes) << size;
    }
}

TEST_F(waiting_browser, gets_a_dump_that_arrives_in_pieces) {
    browser client;
    test_pipe source;
    std::string bytes = odd_bytes(3 * 1000 + 17);
    set_listener(unique_fd(client.hand_over()));
    std::thread writer([&source, &bytes] {
        for (size_t at = 0; at < bytes.size(); at += 1000) {
            std::string piece = bytes.substr(at, 1000);
            EXPECT_EQ(write(source.in.get(), piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
            std::this_thread::yield();
        }
        source.in.reset();
    });
    EXPECT_EQ(handle_request_push(source.out.release(), "core"), 0);
    writer.join();
    EXPECT_TRUE(client.answer() == dump_head("core") + bytes);
}

TEST_F(waiting_browser, gets_a_dump_larger_than_its_connection_holds) {
    browser client;
    std::string bytes = odd_bytes(3 << 20);
    set_listener(unique_fd(client.hand_over()));
    std::string answer;
    std::thread reader([&] { answer = client.answer(); });
    EXPECT_EQ(handle_request_push(dump_of(bytes), "core"), 0);
    reader.join();
    EXPECT_TRUE(answer == dump_head("core") + bytes);
}

TEST_F(waiting_browser, gets_the_dumps_own_name_made_quotable) {
    browser client;
    set_listener(unique_fd(client.hand_over()));
    EXPECT_EQ(handle_request_push(dump_of("x"), "a\"b\r\nc"), 0);
    EXPECT_EQ(client.answer(), dump_head("a_b__c") + "x");
}

TEST_F(waiting_browser, waits_for_one_dump_only) {
    browser client;
    set_listener(unique_fd(client.hand_over()));
    EXPECT_EQ(handle_request_push(dump_of("one"), "core"), 0);
    int second = dump_of("two");
    EXPECT_EQ(handle_request_push(second, "core"), 1);
    EXPECT_FALSE(is_open(second));
    EXPECT_EQ(client.answer(), dump_head("core") + "one");
}

TEST_F(waiting_browser, is_needed_for_a_push) {
    test_pipe source;
    int in_fd = source.out.release();
    EXPECT_EQ(handle_request_push(in_fd, "core"), 1);
    EXPECT_FALSE(is_open(in_fd));
    signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(write(source.in.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(waiting_browser, that_has_gone_before_the_push_makes_it_fail) {
    browser client;
    int in_fd = dump_of("core bytes");
    int out_fd = client.daemon_end();
    set_listener(unique_fd(client.hand_over()));
    client.go_away();
    EXPECT_EQ(handle_request_push(in_fd, "core"), 1);
    EXPECT_FALSE(is_open(in_fd));
    EXPECT_FALSE(is_open(out_fd));
}

TEST_F(waiting_browser, that_closes_midway_makes_the_push_fail) {
    browser client;
    int in_fd = dump_of(odd_bytes(3 << 20));
    int out_fd = client.daemon_end();
    set_listener(unique_fd(client.hand_over()));
    std::thread leaver([&client] {
        char some[100];
        EXPECT_GT(recv(client.own_end(), some, sizeof some, 0), 0);
        client.go_away();
    });
    EXPECT_EQ(handle_request_push(in_fd, "core"), 1);
    leaver.join();
    EXPECT_FALSE(is_open(in_fd));
    EXPECT_FALSE(is_open(out_fd));
    EXPECT_EQ(handle_request_push(dump_of("x"), "core"), 1) << "nobody waits any more";
}

// What a browser receives from a core handler that sends `sent` and then nothing more.
std::string pushed_by_a_silent_handler(const std::string& sent) {
    browser client;
    test_socketpair handler;
    EXPECT_EQ(write(handler.a.get(), sent.data(), sent.size()), static_cast<ssize_t>(sent.size()));
    set_listener(unique_fd(client.hand_over()));
    const int64_t began_ns = monotonic_ns();
    EXPECT_EQ(handle_request_push(handler.b.release(), "core"), 1);
    EXPECT_GE(monotonic_ns() - began_ns, waiting_browser_patience_ms * int64_t{1000000});
    return client.answer();
}

TEST_F(waiting_browser, is_not_held_by_a_silent_core_handler) {
    EXPECT_EQ(pushed_by_a_silent_handler(""), dump_head("core"));
}

TEST_F(waiting_browser, keeps_what_came_before_a_core_handler_fell_silent) {
    EXPECT_EQ(pushed_by_a_silent_handler("some bytes"), dump_head("core") + "some bytes");
}

TEST_F(waiting_browser, gets_all_of_a_slow_core) {
    browser client;
    test_socketpair handler;
    set_listener(unique_fd(client.hand_over()));
    const int pieces = waiting_browser_patience_ms / 1000 + 2;
    std::thread writer([&] {
        for (int i = 0; i < pieces; i++) {
            EXPECT_EQ(write(handler.a.get(), "x", 1), 1);
            poll(nullptr, 0, 1000);
        }
        handler.a.reset();
    });
    EXPECT_EQ(handle_request_push(handler.b.release(), "core"), 0);
    writer.join();
    EXPECT_EQ(client.answer(), dump_head("core") + std::string(static_cast<size_t>(pieces), 'x'));
}

TEST_F(waiting_browser, gets_only_a_header_if_the_dump_cannot_be_read) {
    browser client;
    int in_fd = open(folder.path().c_str(), O_RDONLY | O_CLOEXEC);
    set_listener(unique_fd(client.hand_over()));
    EXPECT_EQ(handle_request_push(in_fd, "core"), 1);
    EXPECT_FALSE(is_open(in_fd));
    EXPECT_EQ(client.answer(), dump_head("core"));
}

}  // namespace
