#include "archive/member_capture.h"

#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

// What `work` writes into the pipe that it gets, in a world whose only interface is its own loopback. A pipe
// and no file: the capture watches its output for a reader that goes.
template <typename Work>
std::string captured(Work work, int* exit_code) {
    test_pipe output;
    pid_t pid = start_in_private_world([&] {
        ignore_broken_pipes();
        output.out.reset();
        return work(output.in.get());
    });
    output.in.reset();
    std::string bytes = read_all(output.out.get());
    int status = wait_status(pid);
    *exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return bytes;
}

// A capture stream is a pcap stream, or nothing but the filler when no interface could be opened.
bool is_capture(const std::string& bytes) {
    uint32_t magic = 0;
    memcpy(&magic, bytes.data(), std::min(bytes.size(), sizeof magic));
    return magic == 0xa1b2c3d4 || bytes == std::string(bytes.size(), '\0');
}

std::string bare_capture(const char* interface, int seconds, int max_bytes) {
    int exit_code = -1;
    std::string bytes = captured(
        [&](int fd) {
            std::set<int> before = open_fds();
            int result = stream_pcap(fd, seconds, max_bytes, interface);
            return result == 0 && open_fds() != before ? 9 : result;
        },
        &exit_code);
    EXPECT_EQ(exit_code, 0);
    EXPECT_TRUE(is_capture(bytes));
    return bytes;
}

}  // namespace

TEST(stream_pcap_dump, member_has_exactly_the_promised_size) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (unsigned size : {512000u, 5001u}) {
        int exit_code = -1;
        std::string bytes = captured(
            [size](int fd) {
                tar_handle* t = tar_new(fd, "top/");
                int result = stream_pcap_dump(t, fd, "any", 1, size);
                tar_close(t);
                return result;
            },
            &exit_code);
        EXPECT_EQ(exit_code, 0);
        tar_listing listing = tar_read(bytes);
        EXPECT_EQ(listing.trouble, "");
        ASSERT_EQ(listing.names(), std::vector<std::string>{"top/netdump.cap"});
        EXPECT_EQ(listing.entries[0].size, size);
        EXPECT_TRUE(is_capture(listing.entries[0].data));
    }
}

TEST(stream_pcap_dump, without_a_handle_there_is_the_bare_stream) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    int exit_code = -1;
    std::string bytes =
        captured([](int fd) { return stream_pcap_dump(nullptr, fd, "lo", 1, 4999); }, &exit_code);
    EXPECT_EQ(exit_code, 0);
    EXPECT_EQ(bytes.size(), 4999u);
    EXPECT_TRUE(is_capture(bytes));
}

TEST(stream_pcap_dump, connection_to_leave_out_need_not_be_a_connection) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    int exit_code = -1;
    std::string bytes = captured(
        [](int fd) { return stream_pcap_dump(nullptr, fd, "lo", 1, 3000, STDIN_FILENO); }, &exit_code);
    EXPECT_EQ(exit_code, 0);
    EXPECT_EQ(bytes.size(), 3000u);
}

TEST(stream_pcap_dump, broken_output_gives_1) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (bool in_archive : {true, false}) {
        EXPECT_EQ(run_in_private_world([in_archive] {
                      ignore_broken_pipes();
                      test_pipe broken;
                      broken.out.reset();
                      tar_handle* t = in_archive ? tar_new(broken.in.get(), nullptr) : nullptr;
                      return stream_pcap_dump(t, broken.in.get(), "any", 1, 512000);
                  }),
                  1);
    }
}

TEST(stream_pcap_dump, names_of_the_caller_are_not_changed) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    int exit_code = -1;
    (void)captured(
        [](int fd) {
            char names[] = "lo,any";
            int result = stream_pcap_dump(nullptr, fd, names, 1, 3000);
            return result == 0 && strcmp(names, "lo,any") == 0 ? 0 : 4;
        },
        &exit_code);
    EXPECT_EQ(exit_code, 0);
}

TEST(stream_pcap, limit_is_exact) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 1, 1).size(), 1u);
    EXPECT_EQ(bare_capture("lo", 1, 100003).size(), 100003u);
}

TEST(stream_pcap, limit_below_1_means_5120000_bytes) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 1, 0).size(), 5120000u);
    EXPECT_EQ(bare_capture("lo", 1, -1).size(), 5120000u);
    EXPECT_EQ(bare_capture("lo", 1, -2000000000).size(), 5120000u);
}

TEST(stream_pcap, interface_may_be_null_or_empty) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture(nullptr, 1, 3000).size(), 3000u);
    EXPECT_EQ(bare_capture("", 1, 3000).size(), 3000u);
}

TEST(stream_pcap, time_below_1_is_bounded) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(bare_capture("lo", 0, 3000).size(), 3000u);
    EXPECT_EQ(bare_capture("lo", -7, 3000).size(), 3000u);
}

TEST(stream_pcap, broken_output_gives_1) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(run_in_private_world([] {
                  ignore_broken_pipes();
                  test_pipe broken;
                  broken.out.reset();
                  return stream_pcap(broken.in.get(), 1, 0, nullptr);
              }),
              1);
}
