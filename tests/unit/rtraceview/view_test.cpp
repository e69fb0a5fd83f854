#include "tools/rtraceview/view.h"

#include <gtest/gtest.h>

#include "tests/unit/rtraceview/bytes.h"

namespace {

struct viewed {
    std::string text;
    stream_state state;
    std::vector<std::string> remarks;
};

viewed view(const std::string& stream, view_format format) {
    collected_text to;
    view_result result = view_trace(&to.out, source_of(stream), format, "a <trace>");
    return {to.all(), result.state, result.remarks};
}

std::string json_of(const std::string& stream) {
    return view(stream, view_format::json).text;
}

std::string begun(int64_t time_ms, size_t offset) {
    return "{\"time_ms\":" + std::to_string(time_ms) + ",\"offset\":" + std::to_string(offset);
}

const std::string disks =
    "Filesystem          \tUsed\tAvail\tMounted on\n/dev/sda1           \t16\t20\t/a b\n";

std::string whole_sample(int64_t time_ms) {
    return header(4, 0, 1, time_ms) + file_of_process(2, 7, "Rss: 3 kB\nRss: 4 kB\n", time_ms) +
           file_of_process(2, 8, "Rss: 1 kB\n", time_ms) +
           file_of_process(3, 7, "Name:\tinit\nVmRSS:\t 9 kB\nThreads:\t1\n", time_ms) +
           header(4, 0, 0, time_ms) + file_of(6, "Total: 11 kB\n", time_ms) +
           file_of(7, "5\t0\t100\n", time_ms) + file_of(8, "MemFree: 6 kB\n", time_ms) +
           record_with(9, disks, 0, time_ms) + file_of(10, "pages\n", time_ms) +
           record_with(12, "boot\n\nup\n", 0, time_ms);
}

const std::string whole_json =
    ",\"smaps\":{\"7\":{\"Rss\":7},\"8\":{\"Rss\":1}},"
    "\"status\":{\"7\":{\"Name\":\"init\",\"VmRSS\":9,\"Threads\":1}},\"smapstot\":{\"Total\":11},"
    "\"filenr\":{\"allocated\":5,\"free\":0,\"maximum\":100},\"meminfo\":{\"MemFree\":6},"
    "\"diskinfo\":{\"/a b\":{\"Filesystem\":\"/dev/sda1\",\"Used\":16,\"Avail\":20}},"
    "\"pagetypeinfo\":{\"text\":\"pages\\n\"},\"event\":{\"text\":\"boot\\nup\\n\"}}\n";

}  // namespace

TEST(rtraceview_json, has_an_object_for_each_sample) {
    std::string one = whole_sample(1000);
    EXPECT_EQ(json_of(one + whole_sample(2000)),
              begun(1000, 0) + whole_json + begun(2000, one.size()) + whole_json);
}

TEST(rtraceview_json, begins_a_sample_when_a_file_is_repeated) {
    std::string one = file_of(8, "MemFree: 6 kB\n");
    EXPECT_EQ(json_of(one + one), begun(some_time_ms, 0) + ",\"meminfo\":{\"MemFree\":6}}\n" +
                                      begun(some_time_ms, one.size()) + ",\"meminfo\":{\"MemFree\":6}}\n");
}

TEST(rtraceview_json, keeps_the_pieces_of_a_file_together) {
    EXPECT_EQ(json_of(record_with(8, "MemFree: 6 kB\nMem", 1) + record_with(8, "Total: 7 kB\n", 1) +
                      header(8, 0, 0)),
              begun(some_time_ms, 0) + ",\"meminfo\":{\"MemFree\":6,\"MemTotal\":7}}\n");
}

TEST(rtraceview_json, begins_a_sample_when_a_program_prints_again) {
    std::string line = record_with(12, "x\n", 0);
    EXPECT_EQ(json_of(line + line), begun(some_time_ms, 0) + ",\"event\":{\"text\":\"x\\n\"}}\n" +
                                        begun(some_time_ms, line.size()) +
                                        ",\"event\":{\"text\":\"x\\n\"}}\n");
}

TEST(rtraceview_json, joins_a_line_from_two_records) {
    EXPECT_EQ(
        json_of(record_with(12, "be", 0) + record_with(12, "gun\n", 0)),
        begun(some_time_ms, 0) + "}\n" + begun(some_time_ms, 22) + ",\"event\":{\"text\":\"begun\\n\"}}\n");
}

TEST(rtraceview_json, has_the_last_report_of_a_program) {
    std::string text =
        "avg-cpu: %user\n 1.5\n\nDevice r/s\nsda 3\n\navg-cpu: %user\n 2.5\n\nDevice r/s\nsda 4\n";
    EXPECT_EQ(json_of(record_with(1, text, 0)),
              begun(some_time_ms, 0) + ",\"iostat\":{\"cpu\":{\"%user\":2.5},\"sda\":{\"r/s\":4}}}\n");
}

TEST(rtraceview_json, skips_unfinished_files) {
    std::string stream = file_of(7, "5\t0\t100\n") + record_with(8, "MemFree: 6 kB\n", 1);
    viewed got = view(stream, view_format::json);
    EXPECT_EQ(got.text,
              begun(some_time_ms, 0) + ",\"filenr\":{\"allocated\":5,\"free\":0,\"maximum\":100}}\n");
    EXPECT_EQ(got.remarks, (std::vector<std::string>{"unfinished files, skipped: 1"}));
    EXPECT_EQ(got.state, stream_state::whole);
}

TEST(rtraceview_json, escapes_any_text) {
    EXPECT_EQ(json_of(record_with(12, "\x01\"\\<\xff\xc3\xa4\xed\xa0\x80\n", 0)),
              begun(some_time_ms, 0) +
                  ",\"event\":{\"text\":\"\\u0001\\\"\\\\<\xef\xbf\xbd\xc3\xa4\xef\xbf\xbd\\n\"}}\n");
}

TEST(rtraceview_json, keeps_masks_as_the_kernel_writes_them) {
    EXPECT_EQ(
        json_of(file_of_process(3, 7, "Name:\t12\nSigIgn:\t0000000000001000\nSigCgt:\t7fffffffffffffff\n")),
        begun(some_time_ms, 0) +
            ",\"status\":{\"7\":{\"Name\":\"12\",\"SigIgn\":\"0000000000001000\","
            "\"SigCgt\":\"7fffffffffffffff\"}}}\n");
}

TEST(rtraceview_json, skips_repeated_processes_of_a_sample) {
    std::string group = header(4, 0, 1) + file_of_process(2, 7, "Rss: 1 kB\n") +
                        file_of_process(2, 7, "Rss: 2 kB\n") + file_of_process(2, 8, "Rss: 3 kB\n") +
                        file_of_process(2, 7, "Rss: 4 kB\n") + file_of_process(3, 7, "VmRSS: 5 kB\n") +
                        header(4, 0, 0);
    viewed got = view(group + group, view_format::json);
    std::string one = ",\"smaps\":{\"7\":{\"Rss\":1},\"8\":{\"Rss\":3}},\"status\":{\"7\":{\"VmRSS\":5}}}\n";
    EXPECT_EQ(got.text, begun(some_time_ms, 0) + one + begun(some_time_ms, group.size()) + one);
    EXPECT_EQ(got.remarks, (std::vector<std::string>{"repeated processes, skipped: 4"}));
}

TEST(rtraceview_json, of_an_empty_trace_is_empty) {
    EXPECT_EQ(json_of(""), "");
}

TEST(rtraceview_json, reports_time_that_goes_back) {
    viewed got = view(file_of(8, "A: 1\n", 2000) + file_of(8, "A: 1\n", 1000) + file_of(8, "A: 1\n", 500),
                      view_format::json);
    EXPECT_EQ(got.remarks, (std::vector<std::string>{"offset 45: the time goes back; occurrences: 2"}));
}

TEST(rtraceview_view, reports_impossible_times) {
    viewed got = view(file_of(8, "A: 1\n", 2000) + file_of(8, "A: 1\n", INT64_MAX), view_format::csv);
    EXPECT_EQ(got.remarks, (std::vector<std::string>{"offset 45: impossible time; records affected: 2"}));
}

TEST(rtraceview_view, writes_what_it_has_read_before_it_reads_more) {
    std::string one = file_of(8, "MemFree: 6 kB\n");
    for (view_format format : {view_format::text, view_format::json, view_format::csv}) {
        std::string text;
        std::vector<size_t> shown;  // before each read
        auto source = [&, reads = 0](char* to, size_t) mutable {
            shown.push_back(text.size());
            memcpy(to, one.data(), one.size());
            return reads++ < 3 ? one.size() : 0;
        };
        text_output out([&text](std::string_view piece) { text.append(piece); });
        view_trace(&out, source, format, "live");
        ASSERT_EQ(shown.size(), 4u);
        EXPECT_LT(shown[0], shown[1]);
        EXPECT_LT(shown[1], shown[2]);
        EXPECT_LT(shown[2], shown[3]);
    }
}

TEST(rtraceview_view, reports_damage_and_unknown_records) {
    std::string stream = record_with(77, "x", 0) + file_of(8, "A: 1\n") + header(8, 204801, 1);
    for (view_format format : {view_format::text, view_format::json, view_format::csv, view_format::html}) {
        viewed got = view(stream, format);
        EXPECT_EQ(got.state, stream_state::damaged);
        EXPECT_EQ(got.remarks, (std::vector<std::string>{
                                   "records of unknown types, skipped: 1",
                                   "offset 70: length 204801 is above the limit of 204800 for meminfo"}));
    }
}

TEST(rtraceview_csv, has_one_number_a_line) {
    std::string stream = file_of(8, "MemFree: 6 kB\nHugePages: 2\n", 1000) +
                         record_with(9, "heading\nsrc\t16\t20\t/a,\"b\n", 0, 2000) +
                         record_with(12, "x\n", 0, 2000);
    EXPECT_EQ(view(stream, view_format::csv).text,
              "time,source,subject,key,value,unit\n"
              "1970-01-01 00:00:01.000,meminfo,,MemFree,6,KiB\n"
              "1970-01-01 00:00:01.000,meminfo,,HugePages,2,\n"
              "1970-01-01 00:00:02.000,diskinfo,\"/a,\"\"b\",Used,16,KiB\n"
              "1970-01-01 00:00:02.000,diskinfo,\"/a,\"\"b\",Avail,20,KiB\n");
}

TEST(rtraceview_text, shows_the_data_below_a_heading) {
    std::string stream = header(4, 0, 1) + record_with(3, number_bytes(int32_t{7}, false) + "Name:", 1) +
                         record_with(3, number_bytes(int32_t{7}, false) + "\tinit\n", 1) + header(3, 0, 0) +
                         file_of_process(3, 8, "Name:\tx\n") + header(4, 0, 0) +
                         record_with(12, "up\x1b[2J", 0) + record_with(1234, "?", 0);
    EXPECT_EQ(view(stream, view_format::text).text,
              "=== 2023-11-14 22:13:20.123 group begins, offset 0\n"
              "=== 2023-11-14 22:13:20.123 status of process 7, offset 20\n"
              "Name:\tinit\n"
              "=== 2023-11-14 22:13:20.123 status of process 8, offset 99\n"
              "Name:\tx\n"
              "=== 2023-11-14 22:13:20.123 group ends, offset 151\n"
              "=== 2023-11-14 22:13:20.123 event, offset 171\n"
              "up.[2J\n"
              "=== 2023-11-14 22:13:20.123 unknown type 1234, offset 197\n");
}

TEST(rtraceview_text, shows_impossible_times_in_milliseconds) {
    std::string text = view(header(4, 0, 1, -5) + header(4, 0, 0, INT64_MAX), view_format::text).text;
    EXPECT_EQ(text, "=== -5 ms group begins, offset 0\n=== 9223372036854775807 ms group ends, offset 20\n");
}

namespace {

size_t times_in(std::string_view text, std::string_view part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
        count++;
    }
    return count;
}

// The JSON that the page's script reads.
std::string plots_in(const std::string& page) {
    constexpr std::string_view mark = "id=\"trace\">\n";
    size_t from = page.find(mark) + mark.size();
    return page.substr(from, page.find("</script>", from) - from);
}

}  // namespace

TEST(rtraceview_html, has_a_row_for_each_sample_and_a_plot_for_each_kind) {
    std::string plots = plots_in(view(whole_sample(1000) + whole_sample(2000), view_format::html).text);
    EXPECT_EQ(times_in(plots, "\"title\""), 7u) << plots;
    EXPECT_NE(
        plots.find("\"unit\":\"KiB\",\"left_out\":0,\"labels\":[\"MemFree\"],\"rows\":[[1000,6],[2000,6]]}"),
        std::string::npos)
        << plots;
    EXPECT_NE(plots.find("\"labels\":[\"init 7\",\"8\"],\"rows\":[[1000,7,1],[2000,7,1]]}"),
              std::string::npos)
        << plots;
    EXPECT_NE(plots.find("\"events\":[[1000,\"boot\"],[1000,\"up\"],[2000,\"boot\"]"), std::string::npos);
}

TEST(rtraceview_html, shows_the_highest_lines_and_the_number_of_others) {
    std::string stream = header(4, 0, 1);
    for (int pid = 1; pid <= 20; pid++) {
        stream += file_of_process(2, pid, "Rss: " + std::to_string(100 - pid) + " kB\n");
    }
    std::string plots = plots_in(view(stream, view_format::html).text);
    EXPECT_NE(plots.find("\"left_out\":8,\"labels\":[\"1\",\"2\",\"3\","), std::string::npos) << plots;
    EXPECT_EQ(plots.find("\"13\""), std::string::npos);
}

TEST(rtraceview_html, has_null_for_a_process_that_is_missing_from_a_sample) {
    std::string plots = plots_in(view(header(4, 0, 1, 1) + file_of_process(3, 1, "VmRSS: 5 kB\n", 1) +
                                          header(4, 0, 1, 2) + file_of_process(3, 2, "VmRSS: 3 kB\n", 2),
                                      view_format::html)
                                     .text);
    EXPECT_NE(plots.find("\"rows\":[[1,5,null],[2,null,3]]}"), std::string::npos) << plots;
}

TEST(rtraceview_html, sorts_samples_by_time) {
    std::string plots = plots_in(
        view(file_of(8, "MemFree: 1 kB\n", 2000) + file_of(8, "MemFree: 2 kB\n", 1000), view_format::html)
            .text);
    EXPECT_NE(plots.find("[[1000,2],[2000,1]]"), std::string::npos) << plots;
}

TEST(rtraceview_html, plots_no_sample_with_an_impossible_time) {
    std::string stream = file_of(8, "MemFree: 1 kB\n", 1000);
    for (int64_t time_ms : {INT64_MAX, INT64_MIN, int64_t{-1}}) {
        stream += file_of(8, "MemFree: 2 kB\n", time_ms) + record_with(12, "up\n", 0, time_ms);
    }
    std::string plots = plots_in(view(stream, view_format::html).text);
    EXPECT_NE(plots.find("\"rows\":[[1000,1]]}"), std::string::npos) << plots;
    EXPECT_NE(plots.find("\"events\":[[\"9223372036854775807 ms\",\"up\"],[\"-9223372036854775808 ms\""),
              std::string::npos)
        << plots;
}

TEST(rtraceview_html, loads_no_other_file) {
    std::string page = view(whole_sample(1000), view_format::html).text;
    EXPECT_EQ(page.substr(0, 15), "<!DOCTYPE html>");
    EXPECT_NE(page.find("Dygraph="), std::string::npos);
    for (const char* part : {" src=", "<link", "@import", "url(http", "fetch("}) {
        EXPECT_EQ(page.find(part), std::string::npos) << part;
    }
}

TEST(rtraceview_html, shows_no_text_as_markup) {
    std::string page = view(record_with(12, "</script><script>alert(1)\n", 0), view_format::html).text;
    EXPECT_EQ(page.find("alert(1)"), page.find("\\u003c/script>\\u003cscript>alert(1)") + 27)
        << plots_in(page);
    EXPECT_NE(page.find("<title>a &lt;trace></title>"), std::string::npos);
}
