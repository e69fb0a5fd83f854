#include "common/safe_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr unsigned block_size = 16384;

// Bytes that reveal a lost, repeated or moved piece.
std::string pattern(size_t length) {
    std::string bytes(length, '\0');
    uint32_t state = 12345;
    for (char& byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

// A file in memory with `bytes`, positioned at its start.
unique_fd memory_file_of(const std::string& bytes) {
    unique_fd file = memory_file();
    EXPECT_EQ(write(file.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(lseek(file.get(), 0, SEEK_SET), 0);
    return file;
}

off_t position(int fd) {
    return lseek(fd, 0, SEEK_CUR);
}

void send_message(int fd, const std::string& bytes) {
    EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
}

// The messages queued in a socket that preserves their boundaries: one for each write of the other side.
std::vector<std::string> messages(test_socketpair& pair) {
    pair.a.reset();
    std::vector<std::string> all;
    std::string room(1 << 18, '\0');
    ssize_t got;
    while ((got = recv(pair.b.get(), room.data(), room.size(), 0)) > 0) {
        all.push_back(room.substr(0, static_cast<size_t>(got)));
    }
    return all;
}

// Runs `work` on a thread of its own and watches whether it sleeps or uses processor time.
class watched_thread {
public:
    explicit watched_thread(std::function<void()> work) {
        thread_ = std::thread([this, work] {
            tid_ = thread_id();
            work();
            done_ = true;
        });
        EXPECT_TRUE(eventually([this] { return tid_ != 0; }));
    }
    ~watched_thread() { join(); }
    void join() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    pid_t tid() const { return tid_; }
    bool done() const { return done_; }
    // True once the thread has used 20 ms of processor time: it retries instead of sleeping.
    bool spins() {
        clockid_t clock;
        if (pthread_getcpuclockid(thread_.native_handle(), &clock) != 0) {
            return false;
        }
        return eventually([clock] {
            timespec used = {};
            clock_gettime(clock, &used);
            return used.tv_sec > 0 || used.tv_nsec > 20'000'000;
        });
    }

private:
    std::atomic<pid_t> tid_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// A socket whose peer has closed with unread data: reads return `left`, then fail with ECONNRESET.
unique_fd socket_with_reset_behind(const std::string& left) {
    test_socketpair pair;
    send_message(pair.a.get(), "unread");
    send_message(pair.b.get(), left);
    pair.b.reset();
    return std::move(pair.a);
}

sockaddr* as_address(sockaddr_in* address) {
    return reinterpret_cast<sockaddr*>(address);
}

unique_fd bound_datagram_socket(sockaddr_in address) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(fd.get(), as_address(&address), sizeof address), 0) << strerror(errno);
    return fd;
}

sockaddr_in address_of(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, as_address(&address), &length), 0);
    return address;
}

// The next `length` bytes, read without the functions under test.
std::string next_bytes(int fd, size_t length) {
    std::string all;
    char byte_block[4096];
    while (all.size() < length) {
        ssize_t got = read(fd, byte_block, std::min(sizeof byte_block, length - all.size()));
        if (got <= 0) {
            ADD_FAILURE() << "the input ended after " << all.size() << " bytes";
            break;
        }
        all.append(byte_block, static_cast<size_t>(got));
    }
    return all;
}

}  // namespace

TEST(safe_read, returns_the_bytes_before_the_end_of_input) {
    test_pipe pipe;
    ASSERT_EQ(write(pipe.in.get(), "0123456789", 10), 10);
    pipe.in.reset();
    std::string buf(100, '#');
    EXPECT_EQ(safe_read(pipe.out.get(), buf.data(), 100), 10);
    EXPECT_EQ(buf, "0123456789" + std::string(90, '#'));
    EXPECT_EQ(safe_read(pipe.out.get(), buf.data(), 100), 0);
}

TEST(safe_read, length_0_does_not_wait) {
    test_pipe pipe;
    char buf[1] = {'#'};
    EXPECT_EQ(safe_read(pipe.out.get(), buf, 0), 0);
    EXPECT_EQ(buf[0], '#');
}

TEST(safe_read, length_0_still_calls_read) {
    errno = 0;
    EXPECT_EQ(safe_read(-1, nullptr, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(safe_read, joins_short_reads) {
    test_socketpair pair(SOCK_SEQPACKET);
    send_message(pair.a.get(), "one ");
    send_message(pair.a.get(), "two ");
    send_message(pair.a.get(), "three");
    std::string buf(13, '#');
    EXPECT_EQ(safe_read(pair.b.get(), buf.data(), 13), 13);
    EXPECT_EQ(buf, "one two three");
}

TEST(safe_read, does_not_read_beyond_the_length) {
    test_pipe pipe;
    ASSERT_EQ(write(pipe.in.get(), "abcdef", 6), 6);
    std::string buf(6, '#');
    EXPECT_EQ(safe_read(pipe.out.get(), buf.data(), 4), 4);
    EXPECT_EQ(buf, "abcd##");
    EXPECT_EQ(pipe.finish(), "ef");
}

TEST(safe_read, continues_after_a_signal) {
    scoped_signal handled(SIGUSR1, count_signal);
    test_pipe pipe;
    std::string buf(20, '#');
    ssize_t result = 0;
    watched_thread reader([&] { result = safe_read(pipe.out.get(), buf.data(), 20); });
    interrupt_asleep(reader.tid(), SIGUSR1);
    ASSERT_EQ(write(pipe.in.get(), "0123456789", 10), 10);
    interrupt_asleep(reader.tid(), SIGUSR1);
    interrupt_asleep(reader.tid(), SIGUSR1);
    EXPECT_FALSE(reader.done());
    ASSERT_EQ(write(pipe.in.get(), "abcdefghij", 10), 10);
    reader.join();
    EXPECT_EQ(result, 20);
    EXPECT_EQ(buf, "0123456789abcdefghij");
}

TEST(safe_read, retries_at_once_if_nothing_can_be_read_yet) {
    test_pipe pipe(O_NONBLOCK | O_CLOEXEC);
    std::string buf(8, '#');
    ssize_t result = 0;
    watched_thread reader([&] { result = safe_read(pipe.out.get(), buf.data(), 8); });
    EXPECT_TRUE(reader.spins());
    EXPECT_FALSE(reader.done());
    ASSERT_EQ(write(pipe.in.get(), "late", 4), 4);
    ASSERT_EQ(write(pipe.in.get(), "data", 4), 4);
    reader.join();
    EXPECT_EQ(result, 8);
    EXPECT_EQ(buf, "latedata");
}

TEST(safe_read, any_other_error_fails) {
    char buf[4];
    errno = 0;
    EXPECT_EQ(safe_read(-1, buf, 4), -1);
    EXPECT_EQ(errno, EBADF);
    unique_fd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(safe_read(folder.get(), buf, 4), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST(safe_read, error_after_some_bytes_loses_them) {
    unique_fd fd = socket_with_reset_behind("five!");
    char buf[100];
    errno = 0;
    EXPECT_EQ(safe_read(fd.get(), buf, sizeof buf), -1);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST(safe_write, writes_all) {
    test_pipe pipe;
    EXPECT_EQ(safe_write(pipe.in.get(), "hello", 5), 5);
    EXPECT_EQ(pipe.finish(), "hello");
}

TEST(safe_write, length_0_writes_nothing) {
    test_socketpair pair(SOCK_SEQPACKET);
    EXPECT_EQ(safe_write(pair.a.get(), "x", 0), 0);
    EXPECT_EQ(safe_write(pair.a.get(), "marker", 6), 6);
    EXPECT_EQ(messages(pair), std::vector<std::string>{"marker"});
}

TEST(safe_write, continues_after_a_signal) {
    scoped_signal handled(SIGUSR1, count_signal);
    const std::string bytes = pattern(1'000'003);
    test_pipe pipe;
    ssize_t result = 0;
    watched_thread writer([&] {
        result = safe_write(pipe.in.get(), bytes.data(), static_cast<unsigned>(bytes.size()));
        pipe.in.reset();
    });
    // The writer sleeps on a full pipe: first after part of a write, then before any byte of one.
    for (int i = 0; i < 4; i++) {
        interrupt_asleep(writer.tid(), SIGUSR1);
    }
    EXPECT_FALSE(writer.done());
    std::string all = next_bytes(pipe.out.get(), bytes.size() / 2);
    interrupt_asleep(writer.tid(), SIGUSR1);
    all += read_all(pipe.out.get());
    writer.join();
    EXPECT_EQ(result, static_cast<ssize_t>(bytes.size()));
    EXPECT_TRUE(all == bytes);
}

TEST(safe_write, retries_at_once_if_nothing_can_be_written_yet) {
    const std::string bytes = pattern(300'000);
    test_pipe pipe;
    set_nonblocking(pipe.in.get());
    ssize_t result = 0;
    watched_thread writer([&] {
        result = safe_write(pipe.in.get(), bytes.data(), static_cast<unsigned>(bytes.size()));
        pipe.in.reset();
    });
    EXPECT_TRUE(writer.spins());
    EXPECT_FALSE(writer.done());
    std::string all = read_all(pipe.out.get());
    writer.join();
    EXPECT_EQ(result, static_cast<ssize_t>(bytes.size()));
    EXPECT_TRUE(all == bytes);
}

TEST(safe_write, full_device_fails) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    errno = 0;
    EXPECT_EQ(safe_write(full.get(), "x", 1), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST(safe_write, fails_with_epipe_if_the_reader_is_gone) {
    scoped_signal ignored(SIGPIPE, SIG_IGN);
    test_pipe pipe;
    pipe.out.reset();
    errno = 0;
    EXPECT_EQ(safe_write(pipe.in.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(safe_write, failure_after_a_partial_write_fails_as_a_whole) {
    temp_dir dir;
    const std::string path = dir.write_file("limited", "");
    int status = run_in_child([&path] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit = {60, 60};
        setrlimit(RLIMIT_FSIZE, &limit);
        unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        const std::string bytes(100, 'x');
        ssize_t result = safe_write(fd.get(), bytes.data(), 100);
        return result == -1 && errno == EFBIG ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(std::filesystem::file_size(path), 60u);
}

TEST(safe_copyfd, copies_to_the_end_and_counts) {
    const std::string bytes = pattern(100'001);
    unique_fd in = memory_file_of(bytes);
    unique_fd out = memory_file();
    EXPECT_EQ(safe_copyfd(in.get(), out.get()), 100'001);
    EXPECT_TRUE(content_of(out.get()) == bytes);
}

TEST(safe_copyfd, empty_input_copies_nothing) {
    unique_fd in = memory_file();
    unique_fd out = memory_file();
    EXPECT_EQ(safe_copyfd(in.get(), out.get()), 0);
    EXPECT_EQ(content_of(out.get()), "");
}

TEST(safe_copyfd, starts_at_the_inputs_position) {
    unique_fd in = memory_file_of("0123456789");
    ASSERT_EQ(lseek(in.get(), 4, SEEK_SET), 4);
    unique_fd out = memory_file();
    EXPECT_EQ(safe_copyfd(in.get(), out.get()), 6);
    EXPECT_EQ(content_of(out.get()), "456789");
}

TEST(safe_copyfd, moves_blocks_of_16384_bytes) {
    const std::string bytes = pattern(40'000);
    unique_fd in = memory_file_of(bytes);
    test_socketpair out(SOCK_SEQPACKET);
    EXPECT_EQ(safe_copyfd(in.get(), out.a.get()), 40'000);
    std::vector<std::string> blocks = messages(out);
    ASSERT_EQ(blocks.size(), 3u);
    EXPECT_EQ(blocks[0].size(), block_size);
    EXPECT_EQ(blocks[1].size(), block_size);
    EXPECT_TRUE(blocks[0] + blocks[1] + blocks[2] == bytes);
}

TEST(safe_copyfd, passes_a_short_read_on_at_once) {
    test_socketpair in(SOCK_SEQPACKET);
    send_message(in.a.get(), "one");
    send_message(in.a.get(), "two");
    in.a.reset();
    test_socketpair out(SOCK_SEQPACKET);
    EXPECT_EQ(safe_copyfd(in.b.get(), out.a.get()), 6);
    EXPECT_EQ(messages(out), (std::vector<std::string>{"one", "two"}));
}

TEST(safe_copyfd, ends_at_once_if_the_reader_is_gone) {
    scoped_signal counted(SIGPIPE, count_signal);
    unique_fd in = memory_file_of(pattern(5 * block_size));
    test_socketpair out;
    out.b.reset();
    errno = 0;
    EXPECT_EQ(safe_copyfd(in.get(), out.a.get()), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(signals_counted, 1) << "writes after the first";
    EXPECT_EQ(position(in.get()), static_cast<off_t>(block_size)) << "reads after the first";
}

TEST(safe_copyfd, ends_when_the_reader_closes_midway) {
    scoped_signal ignored(SIGPIPE, SIG_IGN);
    unique_fd in = memory_file_of(pattern(1'000'000));
    test_pipe out;
    int64_t result = 0;
    watched_thread copier([&] { result = safe_copyfd(in.get(), out.in.get()); });
    EXPECT_EQ(next_bytes(out.out.get(), 3 * block_size).size(), 3 * block_size);
    out.out.reset();
    copier.join();
    EXPECT_EQ(result, -1);
    EXPECT_LT(position(in.get()), 1'000'000);
}

TEST(safe_copyfd, full_device_loses_every_block_and_drains_the_input) {
    unique_fd in = memory_file_of(pattern(3 * block_size + 7));
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(safe_copyfd(in.get(), full.get()), 0);
    EXPECT_EQ(position(in.get()), static_cast<off_t>(3 * block_size + 7));
}

TEST(safe_copyfd, drops_a_failed_block_and_continues) {
    test_socketpair in(SOCK_SEQPACKET);
    send_message(in.a.get(), "before");
    send_message(in.a.get(), pattern(block_size));
    send_message(in.a.get(), "behind");
    in.a.reset();
    // Too small for the one large message, which fails with EMSGSIZE.
    test_socketpair out(SOCK_SEQPACKET);
    int room = 1;
    ASSERT_EQ(setsockopt(out.a.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    EXPECT_EQ(safe_copyfd(in.b.get(), out.a.get()), 12);
    EXPECT_EQ(messages(out), (std::vector<std::string>{"before", "behind"}));
}

TEST(safe_copyfd, does_not_count_the_part_of_a_block_that_was_written) {
    temp_dir dir;
    const std::string path = dir.write_file("limited", "");
    unique_fd in = memory_file_of(pattern(3 * block_size));
    int status = run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit = {20'000, 20'000};
        setrlimit(RLIMIT_FSIZE, &limit);
        unique_fd out(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        return safe_copyfd(in.get(), out.get()) == block_size ? 0 : 1;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(std::filesystem::file_size(path), 20'000u);
    EXPECT_EQ(position(in.get()), static_cast<off_t>(3 * block_size));
}

TEST(safe_copyfd, waits_for_a_full_output) {
    const std::string bytes = pattern(400'000);
    unique_fd in = memory_file_of(bytes);
    test_pipe out;
    set_nonblocking(out.in.get());
    int64_t result = 0;
    watched_thread copier([&] {
        result = safe_copyfd(in.get(), out.in.get());
        out.in.reset();
    });
    EXPECT_TRUE(copier.spins());
    std::string all = read_all(out.out.get());
    copier.join();
    EXPECT_EQ(result, 400'000);
    EXPECT_TRUE(all == bytes);
}

TEST(safe_copyfd, survives_signals_on_both_sides) {
    scoped_signal handled(SIGUSR1, count_signal);
    const std::string bytes = pattern(200'000);
    test_pipe in;
    test_pipe out;
    int64_t result = 0;
    watched_thread copier([&] {
        result = safe_copyfd(in.out.get(), out.in.get());
        out.in.reset();
    });
    interrupt_asleep(copier.tid(), SIGUSR1);  // waiting for input
    std::thread feeder([&] {
        EXPECT_EQ(safe_write(in.in.get(), bytes.data(), static_cast<unsigned>(bytes.size())),
                  static_cast<ssize_t>(bytes.size()));
        in.in.reset();
    });
    // Until the first byte is read, the output fills up and the copier waits for space.
    interrupt_asleep(copier.tid(), SIGUSR1);
    interrupt_asleep(copier.tid(), SIGUSR1);
    std::string all = read_all(out.out.get());
    feeder.join();
    copier.join();
    EXPECT_EQ(result, 200'000);
    EXPECT_TRUE(all == bytes);
}

TEST(safe_copyfd, retries_a_read_if_nothing_can_be_read_yet) {
    test_pipe in(O_NONBLOCK | O_CLOEXEC);
    unique_fd out = memory_file();
    int64_t result = 0;
    watched_thread copier([&] { result = safe_copyfd(in.out.get(), out.get()); });
    EXPECT_TRUE(copier.spins());
    EXPECT_FALSE(copier.done());
    ASSERT_EQ(write(in.in.get(), "late", 4), 4);
    in.in.reset();
    copier.join();
    EXPECT_EQ(result, 4);
    EXPECT_EQ(content_of(out.get()), "late");
}

TEST(safe_copyfd, retries_a_read_whatever_its_error_is) {
    // A datagram sent to an unused port makes the next read fail once. After it come a datagram and an empty
    // one, which is read as the end of file.
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    unique_fd in = bound_datagram_socket(here);
    sockaddr_in in_address = address_of(in.get());
    unique_fd other = bound_datagram_socket(here);
    sockaddr_in other_address = address_of(other.get());
    ASSERT_EQ(connect(in.get(), as_address(&other_address), sizeof other_address), 0);
    other.reset();
    if (send(in.get(), "x", 1, 0) != 1) {
        GTEST_SKIP() << "no loopback here: " << strerror(errno);
    }
    other = bound_datagram_socket(other_address);
    ASSERT_EQ(sendto(other.get(), "behind", 6, 0, as_address(&in_address), sizeof in_address), 6);
    ASSERT_EQ(sendto(other.get(), "", 0, 0, as_address(&in_address), sizeof in_address), 0);
    pollfd waiting = {in.get(), POLLERR, 0};
    ASSERT_EQ(poll(&waiting, 1, 2000), 1);
    ASSERT_TRUE(waiting.revents & POLLERR) << "no error waits to be read";
    unique_fd out = memory_file();
    EXPECT_EQ(safe_copyfd(in.get(), out.get()), 6);
    EXPECT_EQ(content_of(out.get()), "behind");
}

TEST(safe_copyfd, counts_beyond_32_bits) {
    constexpr int64_t size = (int64_t{1} << 32) + 5;
    unique_fd in = memory_file();
    ASSERT_EQ(ftruncate(in.get(), size), 0);  // one large hole
    unique_fd out(open("/dev/null", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(safe_copyfd(in.get(), out.get()), size);
}
