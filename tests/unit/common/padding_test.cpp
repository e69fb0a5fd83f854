#include "common/padding.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <string>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/support/temp_dir.h"

namespace {

const std::string full_line = std::string(79, ' ') + "\n";

std::string ascii_padding(int count) {
    unique_fd file = memory_file();
    pad_ascii(file.get(), count);
    return content_of(file.get());
}

std::string zero_padding(int count) {
    unique_fd file = memory_file();
    EXPECT_EQ(stream_pad(file.get(), count), 0);
    return content_of(file.get());
}

// The sizes of the writes that `pad` makes.
std::vector<size_t> write_sizes(void (*pad)(int fd)) {
    test_socketpair pair(SOCK_SEQPACKET);
    pad(pair.a.get());
    pair.a.reset();
    std::vector<size_t> sizes;
    char room[4096];
    ssize_t got;
    while ((got = recv(pair.b.get(), room, sizeof room, 0)) > 0) {
        sizes.push_back(static_cast<size_t>(got));
    }
    return sizes;
}

}  // namespace

TEST(pad_ascii, writes_lines_of_79_spaces_and_cuts_the_last_one) {
    EXPECT_EQ(ascii_padding(200), full_line + full_line + std::string(40, ' '));
}

TEST(pad_ascii, eighty_bytes_are_one_line) {
    EXPECT_EQ(ascii_padding(80), full_line);
}

TEST(pad_ascii, only_a_whole_line_ends_with_a_newline) {
    EXPECT_EQ(ascii_padding(79), std::string(79, ' '));
    EXPECT_EQ(ascii_padding(81), full_line + " ");
    EXPECT_EQ(ascii_padding(1), " ");
}

TEST(pad_ascii, count_below_one_writes_nothing) {
    EXPECT_EQ(ascii_padding(0), "");
    EXPECT_EQ(ascii_padding(-1), "");
    EXPECT_EQ(ascii_padding(-2147483647 - 1), "");
}

TEST(pad_ascii, writes_line_by_line) {
    EXPECT_EQ(write_sizes([](int fd) { pad_ascii(fd, 200); }), (std::vector<size_t>{80, 80, 40}));
}

TEST(pad_ascii, stops_at_the_first_failed_write) {
    scoped_signal counted(SIGPIPE, count_signal);
    test_pipe pipe;
    pipe.out.reset();
    pad_ascii(pipe.in.get(), 8000);
    EXPECT_EQ(signals_counted, 1);
}

TEST(stream_pad, writes_zero_bytes) {
    EXPECT_EQ(zero_padding(1), std::string(1, '\0'));
    EXPECT_EQ(zero_padding(32), std::string(32, '\0'));
    EXPECT_EQ(zero_padding(1001), std::string(1001, '\0'));
}

TEST(stream_pad, writes_at_most_32_bytes_at_a_time) {
    EXPECT_EQ(write_sizes([](int fd) { EXPECT_EQ(stream_pad(fd, 70), 0); }),
              (std::vector<size_t>{32, 32, 6}));
}

TEST(stream_pad, count_below_one_is_a_success_that_writes_nothing) {
    EXPECT_EQ(zero_padding(0), "");
    EXPECT_EQ(zero_padding(-1), "");
    EXPECT_EQ(stream_pad(-1, 0), 0);
    EXPECT_EQ(stream_pad(-1, -2147483647 - 1), 0);
}

TEST(stream_pad, returns_one_at_the_first_failed_write) {
    scoped_signal counted(SIGPIPE, count_signal);
    test_pipe pipe;
    pipe.out.reset();
    EXPECT_EQ(stream_pad(pipe.in.get(), 3200), 1);
    EXPECT_EQ(signals_counted, 1);
}

TEST(stream_pad, returns_one_if_the_device_is_full) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(stream_pad(full.get(), 5), 1);
}

TEST(stream_pad, returns_one_if_a_later_write_fails) {
    temp_dir dir;
    const std::string path = dir.write_file("limited", "");
    int status = run_in_child([&path] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit = {50, 50};
        setrlimit(RLIMIT_FSIZE, &limit);
        unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        return stream_pad(fd.get(), 70);
    });
    EXPECT_TRUE(exited_with(status, 1));
    EXPECT_EQ(std::filesystem::file_size(path), 50u);
}
