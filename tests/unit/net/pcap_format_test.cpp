#include "net/pcap_format.h"

#include <gtest/gtest.h>
#include <stddef.h>

#include <vector>

namespace {

std::vector<uint32_t> padding_of(uint32_t remaining) {
    std::vector<uint32_t> sizes;
    while (remaining > 0) {
        sizes.push_back(pcap_padding_size(remaining));
        remaining -= sizes.back();
    }
    return sizes;
}

using sizes = std::vector<uint32_t>;

}  // namespace

TEST(pcap_file_header, fields_have_the_offsets_of_the_format) {
    EXPECT_EQ(offsetof(pcap_file_header, version_major), 4u);
    EXPECT_EQ(offsetof(pcap_file_header, version_minor), 6u);
    EXPECT_EQ(offsetof(pcap_file_header, thiszone), 8u);
    EXPECT_EQ(offsetof(pcap_file_header, sigfigs), 12u);
    EXPECT_EQ(offsetof(pcap_file_header, snaplen), 16u);
    EXPECT_EQ(offsetof(pcap_file_header, linktype), 20u);
}

TEST(pcap_record_header, fields_have_the_offsets_of_the_format) {
    EXPECT_EQ(offsetof(pcap_record_header, ts_usec), 4u);
    EXPECT_EQ(offsetof(pcap_record_header, incl_len), 8u);
    EXPECT_EQ(offsetof(pcap_record_header, orig_len), 12u);
}

TEST(pcap_padding_size, up_to_32767_bytes_are_one_record) {
    for (uint32_t remaining = 1; remaining < 32768; remaining++) {
        ASSERT_EQ(pcap_padding_size(remaining), remaining);
    }
}

TEST(pcap_padding_size, record_that_would_leave_less_than_a_header_is_halved) {
    for (uint32_t rest = 1; rest < 16; rest++) {
        EXPECT_EQ(padding_of(32767 + rest), (sizes{16383, 16384 + rest})) << rest;
    }
    EXPECT_EQ(padding_of(32770), (sizes{16383, 16387}));
}

TEST(pcap_padding_size, remainder_of_a_header_or_more_is_the_next_record) {
    EXPECT_EQ(padding_of(32767 + 16), (sizes{32767, 16}));
    EXPECT_EQ(padding_of(32767 + 17), (sizes{32767, 17}));
    EXPECT_EQ(padding_of(32767 * 2), (sizes{32767, 32767}));
    EXPECT_EQ(padding_of(32767 * 2 + 1), (sizes{32767, 16383, 16385}));
}

TEST(pcap_padding_size, every_record_has_space_for_its_header) {
    for (uint32_t remaining = 16; remaining < 32767 * 4 + 100; remaining++) {
        for (uint32_t size : padding_of(remaining)) {
            ASSERT_GE(size, 16u) << remaining;
            ASSERT_LE(size, 32767u) << remaining;
        }
    }
}

TEST(pcap_padding_size, largest_remainder_gives_the_largest_record) {
    EXPECT_EQ(pcap_padding_size(UINT32_MAX), 32767u);
}
