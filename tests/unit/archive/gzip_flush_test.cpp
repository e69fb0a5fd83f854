// The compressor's flush after a time without input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "archive/gzip.h"
#include "common/safe_io.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/archive/gzip_stream.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

constexpr int at_once_ms = 1;
constexpr int in_an_hour_ms = 3600000;

// A compressor between two pipes, in a child that returns the errno of stream_gzip.
class piped_compressor {
public:
    explicit piped_compressor(int flush_after_ms)
        : pid_(fork_child([this, flush_after_ms] {
              ignore_broken_pipes();
              dup2(input_.out.get(), STDIN_FILENO);
              dup2(output_.in.get(), STDOUT_FILENO);
              input_.in.reset();
              output_.out.reset();
              return stream_gzip(nullptr, nullptr, flush_after_ms);
          })) {
        input_.out.reset();
        output_.in.reset();
    }

    void give(const std::string& bytes) {
        given_ += bytes;
        EXPECT_EQ(safe_write(input_.in.get(), bytes.data(), static_cast<unsigned>(bytes.size())),
                  static_cast<ssize_t>(bytes.size()));
    }
    // Reads until all that was given can be decompressed; false if that takes too long.
    bool shows_all() {
        constexpr int patience_ms = 20000;
        pollfd wait = {output_.out.get(), POLLIN, 0};
        while (unpack(packed_).bytes != given_) {
            char block[65536];
            ssize_t got = poll(&wait, 1, patience_ms) == 1 ? read(output_.out.get(), block, sizeof block) : 0;
            if (got <= 0) {
                return false;
            }
            packed_.append(block, static_cast<size_t>(got));
        }
        return true;
    }
    // Waits for output. Returns true if some of what was given can be decompressed.
    bool shows_something(int patience_ms) {
        pollfd wait = {output_.out.get(), POLLIN, 0};
        char block[65536];
        if (poll(&wait, 1, patience_ms) == 1) {
            packed_.append(block, static_cast<size_t>(read(output_.out.get(), block, sizeof block)));
        }
        return !unpack(packed_).bytes.empty();
    }
    // Ends the input and returns the whole stream.
    const std::string& finish() {
        input_.in.reset();
        packed_ += read_all(output_.out.get());
        EXPECT_TRUE(exited_with(wait(), 0));
        EXPECT_TRUE(gunzip(packed_) == given_);
        return packed_;
    }
    // Begins a flush that blocks, since the output holds less than it writes.
    void block_in_flush() {
        EXPECT_GT(fcntl(output_.out.get(), F_SETPIPE_SZ, 4096), 0);
        give(noise(16000));
        EXPECT_TRUE(eventually([this] { return is_blocked_in(SYS_write, pid_); }));
    }
    void stop_reading() { output_.out.reset(); }
    int wait() const { return wait_status(pid_); }
    pid_t pid() const { return pid_; }
    const std::string& given() const { return given_; }

private:
    test_pipe input_;
    test_pipe output_;
    std::string given_;
    std::string packed_;
    pid_t pid_;
};

}  // namespace

TEST(gzip_flush, after_a_silence_all_input_can_be_decompressed) {
    piped_compressor compressor(at_once_ms);
    for (const std::string& bytes : {std::string("x"), noise(5), std::string(300000, 'z'), noise(50000)}) {
        compressor.give(bytes);
        ASSERT_TRUE(compressor.shows_all()) << bytes.size();
    }
    compressor.finish();
}

TEST(gzip_flush, is_complete_around_the_size_of_the_output_buffer) {
    constexpr size_t buffer_size = 16384;
    const std::string unlike = noise(21 * buffer_size);
    piped_compressor compressor(at_once_ms);
    for (size_t less = 0; less < 21; less++) {
        const size_t size = buffer_size - less;
        compressor.give(unlike.substr(less * buffer_size, size));
        ASSERT_TRUE(compressor.shows_all()) << size;
    }
    compressor.finish();
}

TEST(gzip_flush, comes_while_input_trickles) {
    piped_compressor compressor(200);
    bool is_shown = false;
    for (int i = 0; i < 1000 && !is_shown; i++) {
        compressor.give("x");
        is_shown = compressor.shows_something(10);
    }
    EXPECT_TRUE(is_shown);
    compressor.finish();
}

TEST(gzip_flush, without_a_silence_the_stream_has_none) {
    for (int flush_after_ms : {0, in_an_hour_ms}) {
        piped_compressor compressor(flush_after_ms);
        for (int i = 0; i < 20; i++) {
            compressor.give("line " + std::to_string(i) + noise(777));
        }
        EXPECT_TRUE(compressor.finish() == unflushed_stream(compressor.given()));
    }
}

TEST(gzip_flush, is_not_repeated_without_new_input) {
    SKIP_WITHOUT_BLOCKED_CALLS();
    piped_compressor compressor(at_once_ms);
    for (int flushes = 1; flushes <= 2; flushes++) {
        compressor.give("text");
        EXPECT_TRUE(compressor.shows_all());
        EXPECT_TRUE(eventually([&compressor] { return is_blocked_in(SYS_read, compressor.pid()); }));
    }
    EXPECT_EQ(count_flushes(compressor.finish()), 2);
}

TEST(gzip_flush, needs_input_first) {
    SKIP_WITHOUT_BLOCKED_CALLS();
    piped_compressor compressor(at_once_ms);
    EXPECT_TRUE(eventually([&compressor] { return is_blocked_in(SYS_read, compressor.pid()); }));
    EXPECT_EQ(compressor.finish(), unflushed_stream(""));
}

TEST(gzip_flush, waits_for_a_slow_reader) {
    SKIP_WITHOUT_BLOCKED_CALLS();
    piped_compressor compressor(at_once_ms);
    compressor.block_in_flush();
    compressor.give("more");
    compressor.finish();
}

TEST(gzip_flush, fails_if_the_reader_goes_away) {
    SKIP_WITHOUT_BLOCKED_CALLS();
    piped_compressor compressor(at_once_ms);
    compressor.block_in_flush();
    compressor.stop_reading();
    EXPECT_TRUE(exited_with(compressor.wait(), EPIPE));
}
