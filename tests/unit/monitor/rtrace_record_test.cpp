#include "monitor/rtrace_record.h"

#include <signal.h>
#include <string.h>
#include <sys/time.h>

#include "tests/unit/monitor/rtrace_records.h"

namespace {

int64_t now_ms() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now.tv_sec * int64_t{1000} + now.tv_usec / 1000;
}

void fill(const rtrace_sink& sink, std::string_view data) {
    memcpy(rtrace_data(sink), data.data(), data.size());
}

}  // namespace

TEST(rtrace_record, header_has_its_fields_at_their_offsets_in_host_order) {
    char bytes[rtrace_header_size + 1];
    memset(bytes, 'x', sizeof bytes);
    rtrace_put_header(bytes, {0x01020304, 0xa1a2a3a4, 0x1112131415161718, 1});
    std::string expected = bytes_of(uint32_t{0x01020304}) + bytes_of(uint32_t{0xa1a2a3a4}) +
                           bytes_of(int64_t{0x1112131415161718});
    expected += std::string("\1\0\0\0x", 5);
    EXPECT_EQ(std::string(bytes, sizeof bytes), expected);
}

TEST(rtrace_record, timestamp_may_be_before_1970) {
    char bytes[rtrace_header_size];
    rtrace_put_header(bytes, {1, 0, -5, 0});
    EXPECT_EQ(number_at<int64_t>(std::string_view(bytes, sizeof bytes), 8), -5);
}

TEST(rtrace_record, data_without_a_process_follows_its_header) {
    collected_sink to;
    fill(to.sink(), "hello");
    EXPECT_TRUE(rtrace_write_data(to.sink(), rtrace_type_meminfo, rtrace_no_pid, 5, 1));
    expect_records(to.stream(), {record_of(8, "hello", 1)});
}

TEST(rtrace_record, process_id_is_counted_in_the_length) {
    collected_sink to;
    fill(to.sink(), "hello");
    EXPECT_TRUE(rtrace_write_data(to.sink(), rtrace_type_status, 0x12345, 5, 1));
    EXPECT_EQ(to.stream().size(), 20u + 9u);
    expect_records(to.stream(), {record_of(3, bytes_of(int32_t{0x12345}) + "hello", 1)});
}

TEST(rtrace_record, last_piece_is_followed_by_a_header_without_data) {
    collected_sink to;
    fill(to.sink(), "hello");
    EXPECT_TRUE(rtrace_write_last_piece(to.sink(), rtrace_type_smaps, 7, 5));
    expect_records(to.stream(), {record_of(2, bytes_of(int32_t{7}) + "hello", 1), record_of(2, "", 0)});
}

TEST(rtrace_record, buffer_holds_a_full_record_and_its_closing_header) {
    collected_sink to;
    std::string full(rtrace_data_capacity, 'y');
    fill(to.sink(), full);
    EXPECT_TRUE(rtrace_write_last_piece(to.sink(), rtrace_type_smaps, 7, rtrace_data_capacity));
    expect_records(to.stream(), {record_of(2, bytes_of(int32_t{7}) + full, 1), record_of(2, "", 0)});
}

TEST(rtrace_record, write_leaves_the_data_in_the_buffer) {
    collected_sink to;
    fill(to.sink(), "hello");
    EXPECT_TRUE(rtrace_write_data(to.sink(), rtrace_type_event, 9, 5, 0));
    EXPECT_EQ(std::string_view(rtrace_data(to.sink()), 5), "hello");
}

TEST(rtrace_record, bare_header_has_no_data) {
    collected_sink to;
    EXPECT_TRUE(rtrace_write_bare(to.sink(), rtrace_type_group, 1));
    EXPECT_TRUE(rtrace_write_bare(to.sink(), rtrace_type_group, 0));
    expect_records(to.stream(), {record_of(4, "", 1), record_of(4, "", 0)});
}

TEST(rtrace_record, timestamp_is_the_wall_clock_time_of_the_write) {
    collected_sink to;
    int64_t before = now_ms();
    EXPECT_TRUE(rtrace_write_bare(to.sink(), rtrace_type_group, 1));
    int64_t after = now_ms();
    int64_t stamped = number_at<int64_t>(to.stream(), 8);
    EXPECT_LE(before, stamped);
    EXPECT_LE(stamped, after);
}

TEST(rtrace_record, fails_without_a_reader) {
    closed_sink to;
    EXPECT_FALSE(rtrace_write_bare(to.sink(), rtrace_type_group, 1));
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(rtrace_write_data(to.sink(), rtrace_type_meminfo, rtrace_no_pid, 5, 1));
    EXPECT_FALSE(rtrace_write_last_piece(to.sink(), rtrace_type_meminfo, rtrace_no_pid, 5));
}
