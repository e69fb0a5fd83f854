#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>

#include "tests/unit/support/temp_dir.h"
#include "tools/webfront/processes.h"

using namespace std::string_literals;

namespace {

// A line with the fields 3 to 25: state S, the given flags and 25 pages.
std::string stat_line(const std::string& start, const std::string& flags = "4194560") {
    return start + " S 1 812 812 0 -1 " + flags +
           " 1 2 3 4 5 6 7 8 20 0 1 0 99 12288 25 18446744073709551615\n";
}

}  // namespace

TEST(webfront_parse_stat, reads_name_state_and_resident_memory) {
    auto process = webfront_parse_stat(stat_line("812 (syslogd)"), 4096);
    ASSERT_TRUE(process);
    EXPECT_EQ(process->pid, 812);
    EXPECT_EQ(process->name, "syslogd");
    EXPECT_EQ(process->state, 'S');
    EXPECT_EQ(process->memory_kb, 100);
    EXPECT_FALSE(process->is_kernel_thread);
}

TEST(webfront_parse_stat, accepts_a_name_with_blanks_parentheses_and_line_ends) {
    for (std::string name : {"a b", ") S 1 (", "((", "))", "x\ny", "\"\\", "\xff", ""}) {
        auto process = webfront_parse_stat(stat_line("7 (" + name + ")"), 4096);
        ASSERT_TRUE(process) << name;
        EXPECT_EQ(process->name, name);
        EXPECT_EQ(process->memory_kb, 100);
    }
}

TEST(webfront_parse_stat, recognizes_kernel_threads) {
    EXPECT_TRUE(webfront_parse_stat(stat_line("2 (kthreadd)", "2129984"), 4096)->is_kernel_thread);
}

TEST(webfront_parse_stat, rejects_malformed_text) {
    for (std::string text :
         {""s, "812"s, "812 (x"s, "812 (x)"s, "812 (x) S 1 2"s, "x (y) S"s, ") (x"s, " () "s,
          stat_line("812 (x)", "flags"), stat_line("99999999999 (x)"), stat_line("812 (x) S")}) {
        EXPECT_FALSE(webfront_parse_stat(text, 4096)) << text;
    }
}

TEST(webfront_parse_command, puts_blanks_between_arguments) {
    EXPECT_EQ(webfront_parse_command("sh\0-c\0ls -l\0"s), "sh -c ls -l");
    EXPECT_EQ(webfront_parse_command("x\0\0\0"s), "x");
    EXPECT_EQ(webfront_parse_command("x\0\0y\0"s), "x  y");
    EXPECT_EQ(webfront_parse_command(""), "");
    EXPECT_EQ(webfront_parse_command("\0"s), "");
}

TEST(webfront_parse_command, marks_a_cut_command_with_dots) {
    EXPECT_EQ(webfront_parse_command(std::string(webfront_command_limit - 1, 'x')),
              std::string(webfront_command_limit - 1, 'x'));
    EXPECT_EQ(webfront_parse_command(std::string(webfront_command_limit, 'x')),
              std::string(webfront_command_limit, 'x') + "...");
}

TEST(webfront_read_processes, reads_each_numbered_folder_in_order) {
    temp_dir root;
    root.write_file("20/stat", stat_line("20 (b)"));
    root.write_file("20/cmdline", std::string(5000, 'y'));
    root.write_file("3/stat", stat_line("3 (a)"));
    root.write_file("3/cmdline", "a\0-1\0"s);
    root.write_file("4/stat", stat_line("4 (c)"));  // without a command
    root.make_folder("5");                          // gone meanwhile
    root.write_file("6/stat", "nonsense");
    root.write_file("self/stat", stat_line("3 (a)"));
    root.write_file("7x/stat", stat_line("7 (x)"));
    root.write_file("-8/stat", stat_line("8 (x)"));
    auto processes = webfront_read_processes(root.path());
    ASSERT_EQ(processes.size(), 3U);
    EXPECT_EQ(processes[0].pid, 3);
    EXPECT_EQ(processes[0].command, "a -1");
    EXPECT_EQ(processes[1].pid, 4);
    EXPECT_EQ(processes[1].command, "");
    EXPECT_EQ(processes[2].pid, 20);
    EXPECT_EQ(processes[2].command.size(), webfront_command_limit + 3);
    EXPECT_TRUE(webfront_read_processes(root.path("nowhere")).empty());
}

TEST(webfront_read_processes, reads_this_process_from_proc) {
    // A folder that leads to this process alone.
    temp_dir root;
    std::string pid = std::to_string(getpid());
    ASSERT_EQ(symlink(("/proc/" + pid).c_str(), root.path(pid).c_str()), 0);
    char name[16] = {};
    ASSERT_EQ(prctl(PR_GET_NAME, name), 0);
    auto processes = webfront_read_processes(root.path());
    ASSERT_EQ(processes.size(), 1U);
    EXPECT_EQ(processes[0].pid, getpid());
    EXPECT_EQ(processes[0].name, name);
    EXPECT_NE(processes[0].command.find("unit_tools"), std::string::npos);
    EXPECT_GT(processes[0].memory_kb, 100);
}

TEST(webfront_processes_json, escapes_names_and_commands) {
    EXPECT_EQ(webfront_processes_json({}), "{\"processes\":[]}\n");
    const webfront_process two[] = {
        {.pid = 1, .name = "in\"it", .command = "/sbin/init \xff", .state = 'S', .memory_kb = 12},
        {.pid = 2, .name = "kthreadd", .command = "", .state = 'I', .is_kernel_thread = true},
    };
    EXPECT_EQ(webfront_processes_json(two),
              R"({"processes":[{"pid":1,"name":"in\"it","command":"/sbin/init )"
              "\xef\xbf\xbd"
              R"(","state":"S","memory_kb":12,"kernel":false},{"pid":2,"name":"kthreadd","command":"",)"
              R"("state":"I","memory_kb":0,"kernel":true}]}
)");
}
