#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "monitor/rtrace_record.h"
#include "tests/unit/rtraceview/bytes.h"
#include "tools/rtraceview/record_reader.h"

namespace {

struct reading {
    std::vector<std::string> records;  // "offset:type:pid:more:data"
    stream_state state;
    std::string complaint;
    uint64_t unknown;
};

reading read(const std::string& stream, size_t piece = SIZE_MAX) {
    record_reader reader(source_of(stream, piece));
    reading result;
    for (record next; reader.next(&next);) {
        result.records.push_back(std::to_string(next.offset) + ":" + std::to_string(next.type) + ":" +
                                 std::to_string(next.pid) + ":" + std::to_string(next.more) + ":" +
                                 std::string(next.data));
    }
    result.state = reader.state();
    result.complaint = reader.complaint();
    result.unknown = reader.unknown_records();
    return result;
}

const std::string two_files = file_of(8, "MemFree: 1 kB\n") + file_of_process(3, 7, "Name:\tx\n");
const std::vector<std::string> two_files_read = {"0:8:-1:1:MemFree: 1 kB\n",
                                                 "34:8:-1:0:", "54:3:7:1:Name:\tx\n", "86:3:-1:0:"};

}  // namespace

TEST(rtraceview_reader, reads_a_record_of_the_daemons_own_code) {
    char bytes[rtrace_header_size];
    rtrace_put_header(bytes, {rtrace_type_meminfo, 2, -5, 1});
    std::string stream = std::string(bytes, sizeof bytes) + "ab";
    record_reader reader(source_of(stream));
    record next;
    ASSERT_TRUE(reader.next(&next));
    EXPECT_EQ(next.type, 8u);
    EXPECT_EQ(next.time_ms, -5);
    EXPECT_TRUE(next.more && next.is_known);
    EXPECT_EQ(next.data, "ab");
    EXPECT_FALSE(reader.next(&next));
    EXPECT_EQ(reader.state(), stream_state::whole);
}

TEST(rtraceview_reader, reads_pieces_of_any_size) {
    for (size_t piece : {size_t{1}, size_t{3}, size_t{19}, size_t{20}, size_t{21}, SIZE_MAX}) {
        reading got = read(two_files, piece);
        EXPECT_EQ(got.records, two_files_read) << piece;
        EXPECT_EQ(got.state, stream_state::whole);
        EXPECT_EQ(got.complaint, "");
    }
}

TEST(rtraceview_reader, accepts_an_empty_stream) {
    EXPECT_EQ(read("").state, stream_state::whole);
}

TEST(rtraceview_reader, reports_where_a_stream_is_cut_off) {
    for (size_t length = 0; length < two_files.size(); length++) {
        reading got = read(two_files.substr(0, length));
        bool is_whole = length == 0 || length == 34 || length == 54 || length == 86;
        EXPECT_EQ(got.state, is_whole ? stream_state::whole : stream_state::cut_off) << length;
        EXPECT_EQ(got.complaint.empty(), is_whole);
        for (size_t i = 0; i < got.records.size(); i++) {
            EXPECT_EQ(got.records[i], two_files_read[i]);
        }
    }
    EXPECT_EQ(read(two_files.substr(0, 54 + 5)).complaint,
              "offset 54: record cut off after 5 of 20 bytes of its header");
    EXPECT_EQ(read(two_files.substr(0, 54 + 21)).complaint,
              "offset 54: record cut off after 1 of 12 bytes of its data");
}

TEST(rtraceview_reader, reads_the_other_byte_order) {
    std::string stream =
        record_with(3, number_bytes(int32_t{0x1234}, true) + "x", 1, 77, true) + header(3, 0, 0, 78, true);
    record_reader reader(source_of(stream));
    record next;
    ASSERT_TRUE(reader.next(&next));
    EXPECT_TRUE(reader.is_swapped());
    EXPECT_EQ(next.type, 3u);
    EXPECT_EQ(next.pid, 0x1234);
    EXPECT_EQ(next.time_ms, 77);
    EXPECT_EQ(next.data, "x");
    EXPECT_TRUE(reader.next(&next));
    EXPECT_FALSE(reader.next(&next));
    EXPECT_EQ(reader.state(), stream_state::whole);
}

TEST(rtraceview_reader, skips_and_counts_unknown_types) {
    std::string stream = record_with(14, "new", 1) + file_of(8, "x") +
                         record_with(4000, std::string(700000, 'y'), 0) + file_of(8, "z");
    reading got = read(stream, 4096);
    EXPECT_EQ(got.state, stream_state::whole);
    EXPECT_EQ(got.unknown, 2u);
    ASSERT_EQ(got.records.size(), 6u);
    EXPECT_EQ(got.records[4].substr(got.records[4].size() - 9), ":8:-1:1:z");
}

TEST(rtraceview_reader, survives_an_unknown_record_of_4_gib) {
    reading got = read(file_of(8, "x") + header(99, 0xffffffff, 0) + "abc");
    EXPECT_EQ(got.state, stream_state::cut_off);
    EXPECT_EQ(got.records.size(), 2u);
    EXPECT_EQ(got.complaint,
              "offset 41: record cut off after 3 of 4294967295 bytes of its data, of an unknown type");
}

TEST(rtraceview_reader, reads_the_longest_records) {
    std::string full(rtrace_data_capacity, 'x');
    reading got = read(file_of(8, full) + file_of_process(2, 1, full));
    EXPECT_EQ(got.state, stream_state::whole);
    EXPECT_EQ(got.records.size(), 4u);
}

TEST(rtraceview_reader, reports_damage_with_its_offset) {
    std::string good = file_of(8, "x");
    std::string bad_more = header(8, 0, 2);
    std::string bad_zeros = header(8, 0, 0);
    bad_zeros[19] = 'x';
    const std::map<std::string, std::string> damages = {
        {bad_more, "offset 57: the byte for more pieces is neither 0 nor 1"},
        {bad_zeros, "offset 58: reserved bytes are not zero"},
        {std::string(20, '\0'), "offset 41: record of type 0"},
        {header(8, 204801, 1), "offset 45: length 204801 is above the limit of 204800 for meminfo"},
        {header(2, 0xffffffff, 1), "offset 45: length 4294967295 is above the limit of 204804 for smaps"},
        {header(3, 3, 1), "offset 45: length 3 is too short for a process id"},
    };
    for (const auto& [bytes, complaint] : damages) {
        reading got = read(good + bytes + std::string(300000, 'z'));
        EXPECT_EQ(got.state, stream_state::damaged);
        EXPECT_EQ(got.complaint, complaint);
        EXPECT_EQ(got.records.size(), 2u);
    }
}

TEST(rtraceview_reader, survives_random_bytes) {
    std::mt19937 random(7);
    for (int round = 0; round < 2000; round++) {
        std::string stream = round % 2 ? two_files : "";
        for (unsigned i = random() % 100; i > 0; i--) {
            stream += static_cast<char>(random() % (round % 3 ? 4 : 256));
        }
        (void)read(stream, 1 + random() % 50);
    }
}
