// Captures of a private network's interfaces, and what the tests of pcap_dump expect of them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/ioctl.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "net/pcap_dump.h"
#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/pipes.h"

// A capture on its own thread. Its output is a full pipe, so it has its sockets but cannot write the file
// header. Frames sent before finish() or begin() are queued when it begins.
class held_capture {
public:
    held_capture(const char* interfaces, const pcap_dump_options& options, int sockets)
        : names_(interfaces), options_(options) {
        signal(SIGPIPE, SIG_IGN);
        set_nonblocking(pipe_.in.get());
        std::string block(4096, filler);
        while (write(pipe_.in.get(), block.data(), block.size()) > 0) {
            held_ += block.size();
        }
        EXPECT_EQ(fcntl(pipe_.in.get(), F_SETFL, 0), 0);
        thread_ = std::thread([this] {
            result_ = pcap_dump_with(names_.data(), pipe_.in.get(), options_);
            pipe_.in.reset();
        });
        EXPECT_TRUE(eventually([sockets] { return capturing_sockets() == sockets; }));
    }
    held_capture(const held_capture&) = delete;
    held_capture& operator=(const held_capture&) = delete;
    ~held_capture() {
        pipe_.out.reset();
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    // Lets it begin, and returns its output when it has ended. Pauses after each 64 KiB.
    std::string finish(std::chrono::milliseconds pause = {}) {
        std::string all;
        for (std::string piece(1 << 16, '\0');;) {
            ssize_t got = read(pipe_.out.get(), piece.data(), piece.size());
            if (got <= 0) {
                break;
            }
            all.append(piece, 0, static_cast<size_t>(got));
            std::this_thread::sleep_for(pause);
        }
        thread_.join();
        EXPECT_EQ(all.substr(0, held_), std::string(held_, filler));
        return all.substr(held_);
    }
    // Lets it begin, and returns when it writes records. There must be more of them than fit into the pipe.
    void begin() {
        for (std::string piece(held_, '\0'); held_ > 0;) {
            ssize_t got = read(pipe_.out.get(), piece.data(), held_);
            ASSERT_GT(got, 0);
            held_ -= static_cast<size_t>(got);
        }
        EXPECT_TRUE(eventually([this] {
            int queued = 0;
            return ioctl(pipe_.out.get(), FIONREAD, &queued) == 0 && queued > 24;
        }));
    }
    // Lets it begin, and closes the reading side after the file header.
    void close_after_header() {
        std::string all(held_ + 24, '\0');
        for (size_t at = 0; at < all.size();) {
            ssize_t got = read(pipe_.out.get(), all.data() + at, all.size() - at);
            ASSERT_GT(got, 0);
            at += static_cast<size_t>(got);
        }
        pipe_.out.reset();
    }
    int32_t result() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return result_;
    }

private:
    static constexpr char filler = 'f';
    std::string names_;
    pcap_dump_options options_;
    test_pipe pipe_;
    size_t held_ = 0;
    int32_t result_ = -2;
    std::thread thread_;
};

// A capture into memory.
struct whole_capture {
    int32_t result;
    pcap_content content;
    std::string bytes;
};

inline whole_capture capture_now(const char* interfaces, const pcap_dump_options& options) {
    unique_fd file = memory_file();
    std::string names = interfaces;
    int32_t result = pcap_dump_with(names.data(), file.get(), options);
    std::string bytes = content_of(file.get());
    return {result, pcap_read(bytes), bytes};
}

// A frame as it is recorded with a snap length of `size`.
inline std::string zero_filled(std::string frame, size_t size) {
    frame.resize(size, '\0');
    return frame;
}

inline std::string numbered_frame(int number) {
    std::string frame = frame_of(60, 'n');
    memcpy(&frame[14], &number, sizeof number);
    return frame;
}

inline int number_of(const std::string& frame) {
    int number = -1;
    memcpy(&number, &frame.at(14), sizeof number);
    return number;
}

inline void expect_in_order(const std::vector<pcap_record>& records) {
    auto late = std::adjacent_find(records.begin(), records.end(),
                                   [](const auto& a, const auto& b) { return b.time_us() < a.time_us(); });
    EXPECT_EQ(late - records.begin(), records.end() - records.begin());
}

// More frames than one fetch returns, and more bytes than a pipe holds.
constexpr int long_burst = 600;

inline void send_numbered(int first, int count) {
    frame_sender wire("far0");
    for (int i = first; i < first + count; i++) {
        wire.send(zero_filled(numbered_frame(i), 1000));
    }
}

// Expects frames with the numbers from 0 to count - 1.
inline void expect_numbers(const std::vector<std::string>& frames, int count) {
    ASSERT_EQ(frames.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; i++) {
        ASSERT_EQ(number_of(frames[static_cast<size_t>(i)]), i);
    }
}

inline int64_t thread_cpu_us() {
    timespec used;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * 1000000 + used.tv_nsec / 1000;
}
