#include "archive/output.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "archive/phase.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/pipes.h"

namespace {

// A pipe whose reader has gone, and a handle that writes to it.
struct broken_archive {
    broken_archive() {
        ignore_broken_pipes();
        pipe.out.reset();
        tar = tar_new(pipe.in.get(), nullptr);
    }
    broken_archive(const broken_archive&) = delete;
    broken_archive& operator=(const broken_archive&) = delete;
    ~broken_archive() { tar_abandon(tar); }

    test_pipe pipe;
    tar_handle* tar;
};

// Returns true if `write` renews the time limit.
template <typename Write>
bool is_progress(Write write) {
    alarm(20);
    write();
    return alarm(0) == phase_seconds;
}

}  // namespace

TEST(output_write, writes_all_bytes_without_counting_them) {
    for (size_t size : {0, 1, 15999, 16000, 16001, 100000}) {
        const std::string bytes = noise(size);
        test_archive archive;
        EXPECT_TRUE(output_write(archive.handle(), bytes.data(), bytes.size()));
        EXPECT_TRUE(archive.bytes() == bytes) << size;
        EXPECT_EQ(archive.handle()->member_bytes, 0u);
        EXPECT_EQ(archive.handle()->error, 0);
    }
}

TEST(output_write, counts_as_progress_of_the_phase) {
    test_archive archive;
    EXPECT_TRUE(is_progress([&] { output_write(archive.handle(), "x", 1); }));
    EXPECT_FALSE(is_progress([&] { output_write(archive.handle(), "", 0); }));
}

TEST(output_write, failed_write_sets_the_error_and_does_not_count_as_progress) {
    broken_archive broken;
    EXPECT_FALSE(is_progress([&] {
        EXPECT_FALSE(output_write(broken.tar, "x", 1));
        EXPECT_EQ(errno, EPIPE);
    }));
    EXPECT_EQ(broken.tar->error, EPIPE);
}

// Writes to a descriptor that nobody reads until that would block. Returns what was written.
std::string written_until_full(int fd) {
    tar_handle* tar = tar_new(fd, nullptr);
    std::string bytes = noise(1 << 20);
    size_t written = 0;
    ssize_t count;
    while ((count = output_write_some(tar, bytes.data() + written, bytes.size() - written)) > 0) {
        written += static_cast<size_t>(count);
    }
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(tar->error, 0);
    tar_abandon(tar);
    bytes.resize(written);
    return bytes;
}

TEST(output_write_some, fills_a_pipe_without_blocking) {
    test_pipe pipe;
    const std::string written = written_until_full(pipe.in.get());
    EXPECT_GE(written.size(), 4096u);
    EXPECT_TRUE(pipe.finish() == written);
}

TEST(output_write_some, fills_a_socket_without_blocking) {
    test_socketpair pair;
    const std::string written = written_until_full(pair.a.get());
    pair.a.reset();
    EXPECT_TRUE(read_all(pair.b.get()) == written);
}

TEST(output_write_some, full_pipe_does_not_count_as_progress) {
    test_pipe pipe;
    set_nonblocking(pipe.in.get());
    const std::string block(4096, 'x');
    while (write(pipe.in.get(), block.data(), block.size()) > 0) {
    }
    tar_handle* tar = tar_new(pipe.in.get(), nullptr);
    EXPECT_FALSE(is_progress([&] { EXPECT_EQ(output_write_some(tar, "x", 1), -1); }));
    tar_abandon(tar);
}

TEST(output_write_some, failed_write_sets_the_error) {
    broken_archive broken;
    EXPECT_EQ(output_write_some(broken.tar, "x", 1), -1);
    EXPECT_EQ(broken.tar->error, EPIPE);
}

TEST(output_pad, writes_zero_bytes) {
    for (int count : {-1, 0, 1, 16000, 40001}) {
        test_archive archive;
        EXPECT_TRUE(output_pad(archive.handle(), count));
        EXPECT_EQ(archive.bytes(), std::string(static_cast<size_t>(std::max(count, 0)), '\0'));
    }
}

TEST(output_pad_text, lines_continue_across_blocks) {
    test_archive archive;
    EXPECT_TRUE(output_pad_text(archive.handle(), 16000 + 80 + 5));
    const std::string bytes = archive.bytes();
    ASSERT_EQ(bytes.size(), 16085u);
    for (size_t at = 0; at < bytes.size(); at++) {
        ASSERT_EQ(bytes[at], at % 80 == 79 ? '\n' : ' ') << at;
    }
}

TEST(output_pad, failed_write_sets_the_error) {
    broken_archive broken;
    EXPECT_FALSE(output_pad(broken.tar, 1));
    EXPECT_EQ(broken.tar->error, EPIPE);
}

TEST(output_set_error, keeps_the_first_error) {
    test_archive archive;
    errno = ENOSPC;
    output_set_error(archive.handle());
    errno = EPIPE;
    output_set_error(archive.handle());
    EXPECT_EQ(archive.handle()->error, ENOSPC);
}
