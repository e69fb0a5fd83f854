#include "tools/rtraceview/app_output.h"

#include <gtest/gtest.h>

namespace {

constexpr std::string_view iostat_text =
    "Linux 6.1.0 (box) \t11/21/26 \t_mips_\t(1 CPU)\n\n"
    "avg-cpu:  %user   %nice %system %iowait  %steal   %idle\n"
    "           1.50    0.00    2.25    0.00    0.00   96.25\n\n"
    "Device            r/s     rkB/s   %util\n"
    "mmcblk0          0.50      2.00    1.25\n"
    "dm-0             1.00      0.00   99.99\n\n"
    "mmcblk0 7 7 7\n";

constexpr std::string_view pidstat_text =
    "Linux 6.1.0 (box) \t11/21/26 \t_mips_\t(1 CPU)\n\n"
    "02:00:01 PM   UID       PID    %usr %system   %CPU   CPU  Command\n"
    "02:00:02 PM     0         1    0.10    0.20   0.30     0  init\n"
    "02:00:02 PM     0        77   50,50   10.00  60.50     0  my prog\n\n"
    "Average:        0         1    0.10    0.20   0.30     -  init\n";

template <typename Reports>
std::string values_of(std::string_view text, size_t piece) {
    Reports reports;
    line_splitter lines;
    std::string all;
    report_value value = [&all](std::string_view subject, std::string_view column, double number) {
        all.append(subject).append("/").append(column).append("=");
        all += std::to_string(static_cast<int>(number * 100 + 0.5)) + " ";
    };
    for (; !text.empty(); text.remove_prefix(std::min(piece, text.size()))) {
        lines.add(text.substr(0, piece), [&](std::string_view line) { reports.add_line(line, value); });
    }
    return all;
}

}  // namespace

TEST(rtraceview_iostat, reports_processors_and_devices) {
    for (size_t piece : {size_t{1}, size_t{7}, size_t{10000}}) {
        EXPECT_EQ(values_of<iostat_reports>(iostat_text, piece),
                  "cpu/%user=150 cpu/%nice=0 cpu/%system=225 cpu/%iowait=0 cpu/%steal=0 cpu/%idle=9625 "
                  "mmcblk0/r/s=50 mmcblk0/rkB/s=200 mmcblk0/%util=125 "
                  "dm-0/r/s=100 dm-0/rkB/s=0 dm-0/%util=9999 ");
    }
}

TEST(rtraceview_pidstat, reports_processes_but_no_averages) {
    EXPECT_EQ(values_of<pidstat_reports>(pidstat_text, 10000),
              "init 1/%usr=10 init 1/%system=20 init 1/%CPU=30 init 1/CPU=0 "
              "my 77/%usr=5050 my 77/%system=1000 my 77/%CPU=6050 my 77/CPU=0 ");
}

TEST(rtraceview_reports, have_no_values_when_malformed) {
    for (const char* text : {"x y z\n1 2 3\n", "Device\n\n\n", "avg-cpu:\n1 2 3\n", "PID Command\nx y\n",
                             "PID Command\n1\n", "\n\n\n", "avg-cpu: a b\nnan inf\n", "Command PID\n1 2\n"}) {
        EXPECT_EQ(values_of<iostat_reports>(text, 100), "") << text;
        EXPECT_EQ(values_of<pidstat_reports>(text, 100), "") << text;
    }
}

TEST(rtraceview_lines, are_cut_at_the_limit) {
    line_splitter lines;
    std::string got;
    auto keep = [&got](std::string_view line) { got = line; };
    for (int i = 0; i < 100; i++) {
        lines.add(std::string(1000, 'x'), keep);
    }
    EXPECT_EQ(got, "");
    lines.add("\n", keep);
    EXPECT_EQ(got, std::string(line_splitter::line_limit, 'x'));
    lines.add("next\n", keep);
    EXPECT_EQ(got, "next");
}
