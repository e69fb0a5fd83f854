#include "archive/member_capture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/net/captured_stream.h"
#include "tests/unit/support/tar_reader.h"

TEST(stream_pcap_dump, member_has_exactly_the_promised_size) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (unsigned size : {512000u, 5001u}) {
        captured_stream stream = capture_in_private_world([size](int fd) {
            tar_handle* t = tar_new(fd, "top/");
            int result = stream_pcap_dump(t, fd, "any", 1, size);
            tar_close(t);
            return result;
        });
        EXPECT_EQ(stream.exit_code, 0);
        tar_listing listing = tar_read(stream.bytes);
        EXPECT_EQ(listing.trouble, "");
        ASSERT_EQ(listing.names(), std::vector<std::string>{"top/netdump.cap"});
        EXPECT_EQ(listing.entries[0].size, size);
        EXPECT_TRUE(is_capture(listing.entries[0].data));
    }
}

TEST(stream_pcap_dump, null_handle_gives_the_bare_stream) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    captured_stream stream =
        capture_in_private_world([](int fd) { return stream_pcap_dump(nullptr, fd, "lo", 1, 4999); });
    EXPECT_EQ(stream.exit_code, 0);
    EXPECT_EQ(stream.bytes.size(), 4999u);
    EXPECT_TRUE(is_capture(stream.bytes));
}

TEST(stream_pcap_dump, excluded_descriptor_need_not_be_a_connection) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    captured_stream stream = capture_in_private_world(
        [](int fd) { return stream_pcap_dump(nullptr, fd, "lo", 1, 3000, STDIN_FILENO); });
    EXPECT_EQ(stream.exit_code, 0);
    EXPECT_EQ(stream.bytes.size(), 3000u);
}

TEST(stream_pcap_dump, returns_1_if_the_output_is_broken) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    for (bool in_archive : {true, false}) {
        EXPECT_EQ(capture_into_broken_pipe([in_archive](int fd) {
                      tar_handle* t = in_archive ? tar_new(fd, nullptr) : nullptr;
                      return stream_pcap_dump(t, fd, "any", 1, 512000);
                  }),
                  1);
    }
}
