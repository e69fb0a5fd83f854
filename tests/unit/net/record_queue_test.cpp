#include "net/record_queue.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/unit/net/pcap_reader.h"
#include "tests/unit/support/capture.h"

namespace {

// A frame whose length on the wire is 9000 bytes.
captured_frame frame_in(const std::string& bytes) {
    return {reinterpret_cast<const uint8_t*>(bytes.data()),
            static_cast<unsigned>(bytes.size()),
            9000,
            {4000000000, 999999}};
}

// A file header and the records of `frames`.
pcap_content recorded(const std::vector<std::string>& frames, unsigned snaplen, bool is_exact = false) {
    unique_fd file = memory_file();
    pcap_writer out = {file.get(), 0};
    auto queue = std::make_unique<record_queue>();
    EXPECT_TRUE(pcap_write_file_header(&out));
    for (const std::string& frame : frames) {
        EXPECT_TRUE(record_queue_add(queue.get(), &out, frame_in(frame), snaplen, is_exact));
    }
    uint64_t queued = queue->bytes;
    uint64_t before = out.written;
    EXPECT_TRUE(record_queue_write(queue.get(), &out));
    EXPECT_EQ(out.written - before, queued);
    EXPECT_EQ(queue->bytes, 0u);
    return pcap_read(content_of(file.get()));
}

}  // namespace

TEST(record_queue, whole_frames_have_their_own_length_and_timestamp) {
    std::vector<std::string> frames = {"a frame", std::string(1536, 'x'), "b"};
    pcap_content content = recorded(frames, 0);
    EXPECT_EQ(content.frame_bytes(), frames);
    EXPECT_EQ(content.rest, "");
    for (const pcap_record& record : content.records) {
        EXPECT_EQ(record.orig_len, record.data.size());
        EXPECT_EQ(record.time_us(), 4000000000999999u);
    }
}

TEST(record_queue, frames_around_the_limit_for_copying_are_complete) {
    std::vector<std::string> frames;
    for (unsigned size : {1u, record_queue::copied_limit - 1, record_queue::copied_limit,
                          record_queue::copied_limit + 1, 1u, 1536u, 1u}) {
        frames.emplace_back(size, static_cast<char>('a' + frames.size()));
    }
    EXPECT_EQ(recorded(frames, 0).frame_bytes(), frames);
}

TEST(record_queue, header_of_a_cut_frame_has_its_full_length) {
    pcap_content content = recorded({"a frame"}, 3);
    ASSERT_EQ(content.records.size(), 1u);
    EXPECT_EQ(content.records[0].data, "a f");
    EXPECT_EQ(content.records[0].orig_len, 7u);
}

TEST(record_queue, header_of_an_exact_record_has_the_length_on_the_wire) {
    for (unsigned snaplen : {0u, 3u, 1536u}) {
        pcap_content content = recorded({"a frame"}, snaplen, true);
        ASSERT_EQ(content.records.size(), 1u);
        EXPECT_EQ(content.records[0].data.size(), snaplen != 0 ? snaplen : 7u);
        EXPECT_EQ(content.records[0].orig_len, 9000u);
    }
}

TEST(record_queue, frame_shorter_than_its_record_is_followed_by_zeros) {
    for (unsigned snaplen : {8u, 1536u, 1543u, 1544u, 5000u, 100000u}) {
        pcap_content content = recorded({"a frame", "another"}, snaplen);
        std::string first("a frame");
        std::string second("another");
        first.resize(snaplen, '\0');
        second.resize(snaplen, '\0');
        EXPECT_EQ(content.frame_bytes(), (std::vector<std::string>{first, second})) << snaplen;
        EXPECT_EQ(content.rest, "") << snaplen;
    }
}

TEST(record_queue, holds_its_capacity_of_the_largest_records) {
    for (unsigned snaplen : {0u, 1536u}) {
        std::vector<std::string> frames(record_queue::capacity, std::string(1536, 'x'));
        EXPECT_EQ(recorded(frames, snaplen).frame_bytes(), frames);
    }
    std::vector<std::string> frames(record_queue::capacity, std::string(record_queue::copied_limit, 'x'));
    EXPECT_EQ(recorded(frames, 0).frame_bytes(), frames);
}

TEST(record_queue, failed_write_is_reported) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    pcap_writer out = {full.get(), 0};
    auto queue = std::make_unique<record_queue>();
    EXPECT_TRUE(record_queue_add(queue.get(), &out, frame_in("a frame"), 1536));
    EXPECT_FALSE(record_queue_write(queue.get(), &out));
    EXPECT_FALSE(record_queue_add(queue.get(), &out, frame_in("a frame"), 100000));
}
