#include "archive/member_capture.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/net/captured_stream.h"
#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/net/private_network.h"
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

NETWORK_TEST(stream_pcap_dump, exact_member_has_true_lengths_and_the_promised_size) {
    ASSERT_TRUE(run_command("ip link set lo up"));
    constexpr unsigned size = 100000;
    for (bool in_archive : {true, false}) {
        test_archive archive;
        std::thread capture([&] {
            tar_handle* t = in_archive ? archive.handle() : nullptr;
            EXPECT_EQ(stream_pcap_dump(t, archive.fd(), "lo", 1, size, -1, true), 0);
        });
        EXPECT_TRUE(eventually([] { return capturing_sockets() == 1; }));
        send_datagram("a datagram");
        capture.join();
        std::string bytes = archive.bytes();
        if (in_archive) {
            tar_listing listing = archive.finish();
            ASSERT_EQ(listing.names(), std::vector<std::string>{"netdump.cap"});
            bytes = listing.entries[0].data;
        }
        EXPECT_EQ(bytes.size(), size);
        pcap_content content = pcap_read(bytes);
        EXPECT_EQ(content.rest, "");
        ASSERT_EQ(content.frames().size(), 2u);  // sent, and received
        EXPECT_EQ(content.frames()[0].data.substr(42), "a datagram");
        EXPECT_EQ(content.frames()[0].orig_len, 52u);
        EXPECT_EQ(content.padding_sizes().size(), size / 32767 + 1);
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
