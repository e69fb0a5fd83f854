#include "cgi/listener.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <vector>

#include "cgi/waiting_browser.h"
#include "cgi/worker_archive.h"
#include "common/monotonic.h"
#include "common/unix_address.h"
#include "platform/qorlink.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/support/temp_dir.h"

namespace {

unique_fd unix_socket(int flags = 0) {
    return unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

// Both real sockets, in a folder of their own. archive_busy is set, so no request starts an archive.
class listener : public testing::Test {
protected:
    void SetUp() override {
        signal(SIGPIPE, SIG_IGN);
        archive_busy = 1;
        cgi.reset(qorlink_server_socket(cgi_path.c_str(), 0600));
        segfault = unix_socket(SOCK_NONBLOCK);
        const unix_address address(segfault_path);
        ASSERT_TRUE(cgi);
        ASSERT_EQ(bind(segfault.get(), address.get(), address.size()), 0);
        ASSERT_EQ(listen(segfault.get(), 2), 0);
    }
    void TearDown() override {
        archive_busy = 0;
        close_listener();
        set_pop(false);
    }

    void post(const std::string& message, int fd) {
        ASSERT_EQ(qorlink_send(cgi_path.c_str(), message.data(), static_cast<int>(message.size()), fd), 0);
    }
    void post(browser& client, const std::string& message) {
        post(message, client.daemon_end());
        client.drop_daemon_end();
    }
    // The client's end of a connection to one of the sockets, after it has sent `bytes`.
    static unique_fd connection_to(const std::string& path, const std::string& bytes) {
        unique_fd peer = unix_socket();
        const unix_address address(path);
        EXPECT_EQ(connect(peer.get(), address.get(), address.size()), 0);
        EXPECT_EQ(write(peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        return peer;
    }
    // The connection of a core handler that has sent all of `bytes`.
    unique_fd core_handler(const std::string& bytes) const {
        unique_fd peer = connection_to(segfault_path, bytes);
        shutdown(peer.get(), SHUT_WR);
        return peer;
    }
    void post_without_descriptor() const { connection_to(cgi_path, request_message("/x", "listen")); }
    void round() const { listener_round({cgi.get(), segfault.get(), dumps.c_str()}); }

    temp_dir folder;
    std::string cgi_path = folder.path("cgi");
    std::string segfault_path = folder.path("segfault");
    std::string dumps = folder.make_folder("dumps");
    unique_fd cgi;
    unique_fd segfault;
};

const std::string wait_for_push = request_message("/x/debug.tgz", "listen");
const std::string wait_for_pop = request_message("/x/debug.tgz", "pop");
const std::string nonsense = request_message("/x", "cmd=nonsense");

TEST_F(listener, serves_one_request_in_a_round) {
    browser first;
    browser second;
    post(first, nonsense);
    post(second, request_message("/x/debug.tgz", ""));
    round();
    EXPECT_EQ(first.answer(), bad_request_answer);
    EXPECT_TRUE(second.is_waiting());
    round();
    EXPECT_EQ(second.answer(), busy_answer);
}

TEST_F(listener, does_not_pass_the_received_connection_to_children) {
    browser client;
    post(client, wait_for_push);
    std::set<int> before = open_fds();
    round();
    int added = 0;
    for (int fd : open_fds()) {
        if (before.count(fd) == 0) {
            added++;
            EXPECT_TRUE(is_cloexec(fd));
        }
    }
    EXPECT_EQ(added, 1);
}

int option_of(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0);
    return value;
}

// Both ends of a TCP connection over loopback.
void connect_over_tcp(unique_fd* client, unique_fd* server) {
    unique_fd door(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(door.get(), generic, length), 0);
    ASSERT_EQ(listen(door.get(), 1), 0);
    ASSERT_EQ(getsockname(door.get(), generic, &length), 0);
    client->reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(client->get(), generic, length), 0);
    server->reset(accept4(door.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(*server);
}

TEST_F(listener, limits_how_long_a_tcp_browser_can_stall_it) {
    unique_fd client;
    unique_fd server;
    connect_over_tcp(&client, &server);
    ASSERT_EQ(option_of(server.get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
    post(wait_for_push, server.get());
    round();
    EXPECT_EQ(option_of(server.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_EQ(option_of(server.get(), IPPROTO_TCP, TCP_USER_TIMEOUT), 120000);
    EXPECT_EQ(option_of(server.get(), IPPROTO_TCP, TCP_NOTSENT_LOWAT), 65536)
        << "a writer sees a slow reader's progress";
}

TEST_F(listener, serves_a_tcp_browser) {
    unique_fd client;
    unique_fd server;
    connect_over_tcp(&client, &server);
    post(nonsense, server.get());
    server.reset();
    round();
    EXPECT_EQ(read_until_end(client.get()), bad_request_answer);
}

TEST_F(listener, makes_a_connection_blocking) {
    browser client;
    set_nonblocking(client.daemon_end());
    post(wait_for_push, client.daemon_end());
    round();
    EXPECT_EQ(fcntl(client.daemon_end(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(listener, serves_a_descriptor_that_is_not_a_socket) {
    test_pipe answer;
    post(nonsense, answer.in.get());
    round();
    EXPECT_EQ(answer.finish(), bad_request_answer);
}

TEST_F(listener, continues_after_a_malformed_message) {
    post_without_descriptor();
    browser client;
    post(client, nonsense);
    round();
    EXPECT_TRUE(client.is_waiting());
    round();
    EXPECT_EQ(client.answer(), bad_request_answer);
}

TEST_F(listener, accepts_no_core_in_a_round_with_a_malformed_message) {
    browser client;
    set_listener(unique_fd(client.hand_over()));
    post_without_descriptor();
    unique_fd handler = core_handler("core bytes");
    round();
    EXPECT_TRUE(client.is_waiting());
    round();
    EXPECT_EQ(client.answer(), dump_head("core") + "core bytes");
}

TEST_F(listener, serves_a_request_and_then_a_core_in_one_round) {
    browser client;
    post(client, wait_for_push);
    unique_fd handler = core_handler("core bytes");
    round();
    EXPECT_EQ(client.answer(), dump_head("core") + "core bytes");
}

TEST_F(listener, forwards_a_core_to_the_waiting_browser) {
    for (const std::string& request : {wait_for_push, request_message("/x", "cmd=coredump")}) {
        browser client;
        std::string bytes = odd_bytes(5000);
        post(client, request);
        round();
        EXPECT_TRUE(client.is_waiting());
        unique_fd handler = core_handler(bytes);
        round();
        EXPECT_TRUE(client.answer() == dump_head("core") + bytes);
        char byte;
        EXPECT_EQ(read(handler.get(), &byte, 1), 0) << "the handler must see only the end of file";
    }
}

TEST_F(listener, drops_a_core_if_no_browser_waits) {
    unique_fd handler = connection_to(segfault_path, "");
    round();
    EXPECT_EQ(send(handler.get(), "x", 1, MSG_NOSIGNAL), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(listener, survives_a_core_handler_that_has_gone_before_its_turn) {
    core_handler("").reset();
    round();
    browser client;
    post(client, nonsense);
    round();
    EXPECT_EQ(client.answer(), bad_request_answer);
}

TEST_F(listener, pops_a_stored_dump_at_once) {
    folder.write_file("dumps/core.1", "bytes");
    browser client;
    post(client, wait_for_pop);
    round();
    EXPECT_EQ(client.answer(), dump_head("core.1") + "bytes");
    EXPECT_NE(access(folder.path("dumps/core.1").c_str(), F_OK), 0);
}

TEST_F(listener, closes_a_pop_unanswered_if_no_dump_is_stored) {
    browser client;
    post(client, wait_for_pop);
    round();
    EXPECT_EQ(client.answer(), "");
}

TEST_F(listener, leaves_stored_dumps_alone_for_a_browser_that_listens) {
    std::string dump = folder.write_file("dumps/core.1", "bytes");
    browser client;
    post(client, wait_for_push);
    round();
    EXPECT_TRUE(client.is_waiting());
    EXPECT_EQ(access(dump.c_str(), F_OK), 0);
}

TEST_F(listener, pops_for_a_core_request_after_a_pop_request) {
    browser first;
    post(first, wait_for_pop);
    round();
    EXPECT_EQ(first.answer(), "");
    folder.write_file("dumps/core.1", "bytes");
    browser second;
    post(second, request_message("/x", "cmd=coredump"));
    round();
    EXPECT_EQ(second.answer(), dump_head("core.1") + "bytes");
}

TEST_F(listener, keeps_a_stored_dump_when_another_request_follows_a_pop) {
    browser first;
    post(first, wait_for_pop);
    round();
    std::string dump = folder.write_file("dumps/core.1", "bytes");
    browser second;
    post(second, nonsense);
    round();
    EXPECT_EQ(second.answer(), bad_request_answer);
    EXPECT_EQ(access(dump.c_str(), F_OK), 0);
}

TEST_F(listener, reads_no_byte_of_an_earlier_message) {
    browser first;
    browser second;
    post(first, request_message("/x/debug.tgz", "listen&and=more"));
    post(second, request_message("/x/debug.tgz", ""));
    round();
    round();
    EXPECT_TRUE(first.is_waiting());
    EXPECT_EQ(second.answer(), busy_answer);
}

TEST_F(listener, accepts_4095_bytes_of_a_message) {
    constexpr size_t limit = 4095;
    browser whole;
    std::string fitting = request_message("/x", "filler=");
    fitting.append(limit - fitting.size() - 9, 'f').append("&cmd=junk");
    ASSERT_EQ(fitting.size(), limit);
    post(whole, fitting);
    round();
    EXPECT_EQ(whole.answer(), bad_request_answer);
    browser path_only;
    post(path_only, request_message(std::string(limit, '/'), "listen"));
    round();
    EXPECT_EQ(path_only.answer(), broken_server_answer) << "the zero byte came too late";
    browser last_byte;
    post(last_byte, request_message(std::string(limit - 1, '/'), "listen"));
    round();
    EXPECT_EQ(last_byte.answer(), busy_answer) << "the query was cut off";
}

rlimit descriptor_limit() {
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    return limit;
}

// Opens descriptors until `last` is open or none is free.
std::vector<unique_fd> occupy_descriptors(int last) {
    std::vector<unique_fd> taken;
    for (;;) {
        unique_fd next(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
        if (!next) {
            return taken;
        }
        int fd = next.get();
        taken.push_back(std::move(next));
        if (fd >= last) {
            return taken;
        }
    }
}

TEST_F(listener, serves_descriptors_beyond_1024) {
    constexpr int beyond = 1100;
    rlimit old = descriptor_limit();
    if (old.rlim_max < beyond + 100) {
        GTEST_SKIP() << "the hard limit of descriptors is " << old.rlim_max;
    }
    rlimit raised = {beyond + 100, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    {
        std::vector<unique_fd> taken = occupy_descriptors(beyond);
        unique_fd high_cgi(fcntl(cgi.get(), F_DUPFD_CLOEXEC, 0));
        unique_fd high_segfault(fcntl(segfault.get(), F_DUPFD_CLOEXEC, 0));
        EXPECT_GT(high_cgi.get(), beyond);
        browser client;
        post(client, wait_for_push);
        unique_fd handler = core_handler("core bytes");
        listener_round({high_cgi.get(), high_segfault.get(), dumps.c_str()});
        EXPECT_EQ(client.answer(), dump_head("core") + "core bytes");
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
}

TEST_F(listener, serves_requests_that_waited_for_a_free_descriptor) {
    browser client;
    post(client, wait_for_push);
    unique_fd handler = core_handler("core bytes");
    rlimit old = descriptor_limit();
    rlimit lowered = {static_cast<rlim_t>(*open_fds().rbegin() + 20), old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    {
        std::vector<unique_fd> taken = occupy_descriptors(static_cast<int>(lowered.rlim_cur));
        EXPECT_FALSE(taken.empty());
        round();
        round();
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_TRUE(client.is_waiting());
    round();
    EXPECT_EQ(client.answer(), dump_head("core") + "core bytes");
}

// Runs a listener in a child process while `meanwhile` runs. Returns what it wrote to standard error.
template <typename Work>
std::string said_by_a_listener(const listener_options& options, int descriptor_limit, Work meanwhile) {
    test_pipe said;
    pid_t pid = fork_child([&] {
        dup2(said.in.get(), STDERR_FILENO);
        const rlimit limit = {static_cast<rlim_t>(descriptor_limit), static_cast<rlim_t>(descriptor_limit)};
        if (descriptor_limit > 0) {
            setrlimit(RLIMIT_NOFILE, &limit);
        }
        run_listener(options);
        return 0;
    });
    meanwhile(pid, said.out.get());
    EXPECT_EQ(kill(pid, SIGKILL), 0);
    EXPECT_TRUE(killed_by(wait_status(pid), SIGKILL)) << "it ended by itself";
    return said.finish();
}

TEST_F(listener, continues_after_an_interrupted_wait) {
    scoped_signal handled(SIGUSR2, count_signal);
    std::string said =
        said_by_a_listener({cgi.get(), segfault.get(), dumps.c_str()}, 0, [&](pid_t pid, int fd) {
            // Repeated, because the first signal may arrive before the wait.
            ASSERT_TRUE(eventually([&] {
                pollfd line = {fd, POLLIN, 0};
                return syscall(SYS_tgkill, pid, pid, SIGUSR2) == 0 && poll(&line, 1, 10) == 1;
            }));
            browser client;
            post(client, nonsense);
            EXPECT_EQ(client.answer(), bad_request_answer);
        });
    EXPECT_TRUE(said.starts_with("select: Interrupted system call\n")) << said;
}

TEST_F(listener, pauses_if_poll_fails) {
    // Fewer descriptors than sockets to wait for: poll(2) fails for good.
    std::string said = said_by_a_listener({cgi.get(), segfault.get(), dumps.c_str()}, 1,
                                          [](pid_t, int) { poll(nullptr, 0, 1000); });
    const std::string line = "select: Invalid argument\n";
    EXPECT_TRUE(said.starts_with(line)) << said;
    EXPECT_LT(said.size(), 100 * line.size());
}

TEST_F(listener, pauses_if_a_socket_has_been_closed) {
    const int64_t began_ns = monotonic_ns();
    const int closed = cgi.get();
    cgi.reset();
    listener_round({closed, segfault.get(), dumps.c_str()});
    EXPECT_GE(monotonic_ns() - began_ns, 50000000);
}

}  // namespace
