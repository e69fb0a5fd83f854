#include "net/pcap_writer.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/pipes.h"

namespace {

std::string padded(uint32_t total) {
    unique_fd file = memory_file();
    pcap_writer out = {file.get(), 0};
    EXPECT_TRUE(pcap_write_file_header(&out));
    EXPECT_TRUE(pcap_pad(&out, total));
    std::string bytes = content_of(file.get());
    EXPECT_EQ(out.written, bytes.size());
    return bytes;
}

}  // namespace

TEST(pcap_write_file_header, is_the_24_bytes_of_the_format) {
    EXPECT_EQ(padded(24), pcap_expected_file_header());
}

TEST(pcap_pad, size_below_the_file_header_gives_that_header) {
    for (uint32_t total = 0; total <= 24; total++) {
        EXPECT_EQ(padded(total).size(), 24u) << total;
    }
}

TEST(pcap_pad, less_than_a_record_header_is_filled_with_zeros) {
    for (uint32_t total = 25; total < 40; total++) {
        EXPECT_EQ(padded(total), pcap_expected_file_header() + std::string(total - 24, '\0')) << total;
    }
}

TEST(pcap_pad, sizes_up_to_100_are_one_record) {
    for (uint32_t total = 40; total <= 100; total++) {
        std::string bytes = padded(total);
        EXPECT_EQ(bytes.size(), total);
        pcap_content content = pcap_read(bytes);
        EXPECT_EQ(content.padding_sizes(), std::vector<size_t>{total - 24}) << total;
        EXPECT_EQ(content.rest, "") << total;
    }
}

TEST(pcap_pad, sizes_around_every_boundary_are_exact) {
    for (uint32_t records : {1u, 2u, 3u}) {
        for (uint32_t extra = 0; extra <= 40; extra++) {
            uint32_t total = 24 + records * 32767 - 20 + extra;
            std::string bytes = padded(total);
            EXPECT_EQ(bytes.size(), total);
            EXPECT_EQ(pcap_read(bytes).rest, "") << total;
            EXPECT_EQ(pcap_read(bytes).frames().size(), 0u) << total;
        }
    }
}

TEST(pcap_pad, remainder_of_32770_bytes_is_two_records) {
    EXPECT_EQ(pcap_read(padded(24 + 32770)).padding_sizes(), (std::vector<size_t>{16383, 16387}));
}

TEST(pcap_write, short_writes_lose_nothing) {
    test_pipe pipe(O_CLOEXEC | O_NONBLOCK);
    std::string first(300000, 'a');
    std::string second(70001, 'b');
    iovec pieces[] = {{first.data(), first.size()}, {nullptr, 0}, {second.data(), second.size()}};
    set_nonblocking(pipe.in.get());
    EXPECT_EQ(fcntl(pipe.out.get(), F_SETFL, 0), 0);
    reader_thread reader(std::move(pipe.out));
    pcap_writer out = {pipe.in.get(), 5};
    EXPECT_TRUE(pcap_write(&out, pieces, 3));
    EXPECT_EQ(out.written, 5 + first.size() + second.size());
    pipe.in.reset();
    EXPECT_EQ(reader.text(), first + second);
}

TEST(pcap_write, failure_leaves_errno) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    ASSERT_TRUE(full);
    pcap_writer out = {full.get(), 0};
    EXPECT_FALSE(pcap_write_file_header(&out));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(pcap_pad(&out, 100));
    EXPECT_EQ(out.written, 0u);
}

TEST(pcap_write_zeros, writes_any_number_of_zeros) {
    for (uint64_t count : {0ull, 1ull, 1536ull, 1537ull, 33792ull, 33793ull, 100000ull}) {
        unique_fd file = memory_file();
        pcap_writer out = {file.get(), 0};
        EXPECT_TRUE(pcap_write_zeros(&out, count));
        EXPECT_EQ(content_of(file.get()), std::string(count, '\0'));
    }
}
