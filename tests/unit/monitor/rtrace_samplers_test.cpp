#include "monitor/rtrace_samplers.h"

#include <signal.h>

#include <algorithm>
#include <map>

#include "tests/unit/monitor/rtrace_records.h"
#include "tests/unit/support/children.h"

namespace {

// The records of a file with these bytes.
std::string sampled(std::string_view bytes, rtrace_type type = rtrace_type_meminfo,
                    pid_t pid = rtrace_no_pid) {
    temp_dir folder;
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_file(to.sink(), folder.write_file("file", bytes).c_str(), type, pid));
    return to.stream();
}

}  // namespace

TEST(rtrace_file, is_a_piece_and_a_closing_header) {
    expect_records(sampled("MemTotal: 1 kB\n"), {record_of(8, "MemTotal: 1 kB\n", 1), record_of(8, "", 0)});
}

TEST(rtrace_file, of_1000_bytes_of_a_process_is_a_record_of_1004) {
    std::string text(1000, 's');
    std::string stream = sampled(text, rtrace_type_status, 4711);
    EXPECT_EQ(outline_of(stream), (outline{"3:1004:1", "3:0:0"}));
    expect_records(stream, {record_of(3, bytes_of(int32_t{4711}) + text, 1), record_of(3, "", 0)});
}

TEST(rtrace_file, is_cut_into_pieces_of_204800_bytes) {
    EXPECT_EQ(outline_of(sampled(std::string(204799, 'x'))), (outline{"8:204799:1", "8:0:0"}));
    EXPECT_EQ(outline_of(sampled(std::string(204800, 'x'))), (outline{"8:204800:1", "8:0:0"}));
    EXPECT_EQ(outline_of(sampled(std::string(204801, 'x'))), (outline{"8:204800:1", "8:1:1", "8:0:0"}));
    EXPECT_EQ(outline_of(sampled(std::string(409600, 'x'), rtrace_type_smaps, 1)),
              (outline{"2:204804:1", "2:204804:1", "2:0:0"}));
}

TEST(rtrace_file, loses_no_byte_between_its_pieces) {
    std::string text;
    for (int i = 0; text.size() < 500000; i++) {
        text += std::to_string(i) + " ";
    }
    std::string all;
    for (const trace_record& record : records_of(sampled(text))) {
        all += record.data;
    }
    EXPECT_EQ(all, text);
}

TEST(rtrace_file, that_arrives_in_small_reads_is_one_piece) {
    temp_dir folder;
    std::string path = folder.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    collected_sink to;
    pid_t writer = fork_child([&path] {
        unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        for (int i = 0; i < 50; i++) {
            (void)!write(fd.get(), "0123456789", 10);
            usleep(100);
        }
        return 0;
    });
    EXPECT_TRUE(rtrace_sample_file(to.sink(), path.c_str(), rtrace_type_followed, rtrace_no_pid));
    EXPECT_TRUE(exited_with(wait_status(writer), 0));
    EXPECT_EQ(outline_of(to.stream()), (outline{"5:500:1", "5:0:0"}));
}

TEST(rtrace_file, that_is_empty_gives_no_record) {
    EXPECT_EQ(sampled(""), "");
}

TEST(rtrace_file, that_is_missing_gives_no_record_and_no_error) {
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_file(to.sink(), "/nonexistent/smapstot", rtrace_type_smapstot, rtrace_no_pid));
    EXPECT_EQ(to.stream(), "");
}

TEST(rtrace_file, that_cannot_be_read_gives_no_record_and_no_error) {
    temp_dir folder;
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_file(to.sink(), folder.path().c_str(), rtrace_type_meminfo, rtrace_no_pid));
    EXPECT_EQ(to.stream(), "");
}

TEST(rtrace_file, fails_without_a_reader) {
    temp_dir folder;
    closed_sink to;
    std::string small = folder.write_file("small", "x");
    std::string large = folder.write_file("large", std::string(300000, 'x'));
    std::string empty = folder.write_file("empty", "");
    EXPECT_FALSE(rtrace_sample_file(to.sink(), small.c_str(), rtrace_type_meminfo, rtrace_no_pid));
    EXPECT_FALSE(rtrace_sample_file(to.sink(), large.c_str(), rtrace_type_meminfo, rtrace_no_pid));
    EXPECT_TRUE(rtrace_sample_file(to.sink(), empty.c_str(), rtrace_type_meminfo, rtrace_no_pid));
}

TEST(rtrace_file, leaves_no_descriptor_open) {
    std::set<int> before = open_fds();
    sampled(std::string(300000, 'x'));
    EXPECT_EQ(open_fds(), before);
}

TEST(rtrace_processes, are_the_folders_with_numbers_as_names) {
    temp_dir root;
    root.write_file("proc/1/status", "Name: init\n");
    root.write_file("proc/4711/status", "Name: web\n");
    root.write_file("proc/12a/status", "no\n");
    root.write_file("proc/a12/status", "no\n");
    root.write_file("proc/-3/status", "no\n");
    root.write_file("proc/self/status", "no\n");
    root.write_file("proc/99", "a file\n");
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_processes(to.sink(), root.path().c_str(), rtrace_type_status, "status"));
    std::map<int32_t, std::string> found;
    std::vector<trace_record> records = records_of(to.stream());
    ASSERT_EQ(records.size(), 4u);
    for (size_t i = 0; i < 4; i += 2) {
        EXPECT_EQ(records[i].type, 3u);
        EXPECT_EQ(records[i].more, 1);
        EXPECT_EQ(records[i + 1].length, 0u);
        EXPECT_EQ(records[i + 1].more, 0);
        found[number_at<int32_t>(records[i].data, 0)] = records[i].data.substr(4);
    }
    EXPECT_EQ(found, (std::map<int32_t, std::string>{{1, "Name: init\n"}, {4711, "Name: web\n"}}));
}

TEST(rtrace_processes, that_have_ended_give_no_record) {
    temp_dir root;
    root.make_folder("proc/1");
    root.write_file("proc/2/smaps", "");
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_processes(to.sink(), root.path().c_str(), rtrace_type_smaps, "smaps"));
    EXPECT_EQ(to.stream(), "");
}

TEST(rtrace_processes, whose_names_are_too_long_for_a_path_are_skipped) {
    temp_dir root;
    root.write_file("proc/" + std::string(250, '1') + "/smaps", "x");
    root.write_file("proc/3/smaps", "x");
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_processes(to.sink(), root.path().c_str(), rtrace_type_smaps, "smaps"));
    EXPECT_EQ(outline_of(to.stream()), (outline{"2:5:1", "2:0:0"}));
}

TEST(rtrace_processes, give_no_record_without_a_proc_folder) {
    collected_sink to;
    EXPECT_TRUE(rtrace_sample_processes(to.sink(), "/nonexistent", rtrace_type_smaps, "smaps"));
    EXPECT_TRUE(rtrace_sample_processes(to.sink(), std::string(5000, '/').c_str(), rtrace_type_smaps, "x"));
    EXPECT_EQ(to.stream(), "");
}

TEST(rtrace_processes, fail_without_a_reader) {
    temp_dir root;
    root.write_file("proc/1/smaps", "x");
    root.write_file("proc/2/smaps", "x");
    closed_sink to;
    EXPECT_FALSE(rtrace_sample_processes(to.sink(), root.path().c_str(), rtrace_type_smaps, "smaps"));
}
