#include "proc/proc_list.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

using std::string_literals::operator""s;

// An invented proc file system.
class proc_tree : public testing::Test {
protected:
    const char* root() const { return dir_.path().c_str(); }
    void add_cmdline(int pid, std::string_view bytes) { add(pid, "cmdline", bytes); }
    void add_stat(int pid, std::string_view bytes) { add(pid, "stat", bytes); }
    void add(int pid, const std::string& file, std::string_view bytes) {
        dir_.write_file(std::to_string(pid) + "/" + file, bytes);
    }
    void add_process(int pid, std::string_view cmdline, std::string_view stat) {
        add_cmdline(pid, cmdline);
        add_stat(pid, stat);
    }
    // The name as read into a buffer of `length` bytes that was filled with `fill`; "<none>" if there is no
    // name.
    std::string name_of(int pid, size_t length = 64, char fill = '\0') const {
        std::string buffer(length, fill);
        int found = proc_get_pidname_at(root(), pid, buffer.data(), buffer.size());
        EXPECT_TRUE(found == 0 || found == 1) << found;
        return found == 1 ? std::string(buffer.c_str()) : "<none>";
    }

    temp_dir dir_;
};

using proc_get_pidname_at_tree = proc_tree;
using proc_ppid_at_tree = proc_tree;
using proc_is_kernel_thread_at_tree = proc_tree;
using proc_find_pid_by_name_tree = proc_tree;

class proc_list_at_tree : public proc_tree {
protected:
    void SetUp() override { proc_extra_ignore_pid = -1; }
    void TearDown() override { proc_extra_ignore_pid = -1; }
    void add_entries(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            dir_.make_folder(name);
        }
    }
    // Sorted, because proc_list_at keeps the directory's order.
    std::vector<pid_t> listed(pid_t skip = -1, int capacity = 100) const {
        std::vector<pid_t> pids(static_cast<size_t>(capacity), -77);
        int count = proc_list_at(root(), pids.data(), capacity, skip);
        pids.resize(static_cast<size_t>(count));
        std::sort(pids.begin(), pids.end());
        return pids;
    }
};

using pid_list = std::vector<pid_t>;

// Runs `work(a, b)` in process 3 of a pid namespace with its own /proc. Its parent is process 2, its two
// sleeping children are `a` and `b`; there are no other processes but process 1. Returns what `work`
// returned, or "<no namespace>" if the namespace cannot be created.
template <typename Work>
std::string in_private_proc(Work work) {
    test_pipe answer;
    int status = run_in_child([&] {
        if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0 ||
            mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return 77;
        }
        return WEXITSTATUS(run_in_child([&] {  // process 1
            if (mount("proc", "/proc", "proc", 0, nullptr) != 0) {
                return 77;
            }
            return WEXITSTATUS(run_in_child([&] {      // process 2
                return WEXITSTATUS(run_in_child([&] {  // process 3
                    auto wait_for_ever = [] {
                        for (;;) {
                            pause();
                        }
                        return 0;
                    };
                    pid_t sleepers[] = {fork_child(wait_for_ever), fork_child(wait_for_ever)};
                    std::string text = work(sleepers[0], sleepers[1]);
                    (void)!write(answer.in.get(), text.data(), text.size());
                    for (pid_t sleeper : sleepers) {
                        kill(sleeper, SIGKILL);
                        wait_status(sleeper);
                    }
                    return 0;
                }));
            }));
        }));
    });
    return exited_with(status, 77) ? "<no namespace>" : answer.finish();
}

// The pid of a child that has ended and was reaped.
pid_t gone_pid() {
    pid_t pid = fork_child([] { return 0; });
    wait_status(pid);
    return pid;
}

}  // namespace

TEST(read_file_once, makes_one_read_of_at_most_the_length) {
    temp_dir dir;
    const std::string path = dir.write_file("file", "0123456789");
    std::string buffer(12, '#');
    EXPECT_EQ(read_file_once(path.c_str(), buffer.data(), 4), 4);
    EXPECT_EQ(buffer, "0123########");
    EXPECT_EQ(read_file_once(path.c_str(), buffer.data(), 12), 10);
    EXPECT_EQ(buffer, "0123456789##");
}

TEST(read_file_once, empty_file_is_zero) {
    temp_dir dir;
    char byte = '#';
    EXPECT_EQ(read_file_once(dir.write_file("file", "").c_str(), &byte, 1), 0);
    EXPECT_EQ(byte, '#');
}

TEST(read_file_once, missing_file_is_minus_one) {
    temp_dir dir;
    char byte;
    errno = 0;
    EXPECT_EQ(read_file_once(dir.path("gone").c_str(), &byte, 1), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(read_file_once, closes_its_file) {
    temp_dir dir;
    const std::string path = dir.write_file("file", "x");
    int before = count_open_fds();
    char byte;
    EXPECT_EQ(read_file_once(path.c_str(), &byte, 1), 1);
    EXPECT_EQ(read_file_once(dir.path().c_str(), &byte, 1), -1);  // opens but cannot be read
    EXPECT_EQ(count_open_fds(), before);
}

TEST_F(proc_get_pidname_at_tree, name_follows_the_last_slash_of_the_first_argument) {
    add_process(7, "/usr/bin/pellora\0-v\0/tmp/other\0"s, "7 (wrong) S 1 ");
    EXPECT_EQ(name_of(7), "pellora");
    add_process(8, "./a.out\0"s, "8 (wrong) S 1 ");
    EXPECT_EQ(name_of(8), "a.out");
    add_process(9, "/sbin/name with (blanks)\0"s, "9 (wrong) S 1 ");
    EXPECT_EQ(name_of(9), "name with (blanks)");
}

TEST_F(proc_get_pidname_at_tree, first_argument_without_a_slash_falls_back_to_the_stat_line) {
    add_process(7, "sh\0-c\0/bin/other\0"s, "7 (dash) S 1 7 7 0 ");
    EXPECT_EQ(name_of(7), "dash");
}

TEST_F(proc_get_pidname_at_tree, first_argument_that_ends_in_a_slash_falls_back_to_the_stat_line) {
    add_process(7, "/usr/bin/\0more\0"s, "7 (odd) S 1 ");
    EXPECT_EQ(name_of(7), "odd");
}

TEST_F(proc_get_pidname_at_tree, kernel_thread_has_an_empty_command_line) {
    add_process(2, "", "2 (kthreadd) S 0 0 0 0 ");
    EXPECT_EQ(name_of(2), "kthreadd");
}

TEST_F(proc_get_pidname_at_tree, missing_or_unreadable_command_line_falls_back_to_the_stat_line) {
    add_stat(7, "7 (alone) S 1 ");
    EXPECT_EQ(name_of(7), "alone");
    dir_.make_folder("8/cmdline");
    add_stat(8, "8 (folder) S 1 ");
    EXPECT_EQ(name_of(8), "folder");
}

TEST_F(proc_get_pidname_at_tree, command_field_may_hold_blanks) {
    add_process(7, "", "7 (two words) S 1 ");
    EXPECT_EQ(name_of(7), "two words");
}

TEST_F(proc_get_pidname_at_tree, command_field_ends_at_the_last_closing_parenthesis) {
    add_process(7, "", "7 (a) b) S 1 ");
    EXPECT_EQ(name_of(7), "a) b");
}

TEST_F(proc_get_pidname_at_tree, command_field_begins_at_the_last_opening_parenthesis) {
    add_process(7, "", "7 (my (odd) name) S 1 ");
    EXPECT_EQ(name_of(7), "odd) name");
}

TEST_F(proc_get_pidname_at_tree, closing_parenthesis_needs_a_blank_after_it) {
    add_process(7, "", "7 (x)S 1 ");
    EXPECT_EQ(name_of(7), "<none>");
    add_process(8, "", "8 (x)");
    EXPECT_EQ(name_of(8), "<none>");
    add_process(9, "", "9 (x)\tS 1 ");
    EXPECT_EQ(name_of(9), "<none>");
    add_process(10, "", "10 (x) S (y)S");  // only the last one counts
    EXPECT_EQ(name_of(10), "<none>");
}

TEST_F(proc_get_pidname_at_tree, stat_line_without_a_command_field_gives_no_name) {
    add_process(7, "", "7 x S 1 ");
    EXPECT_EQ(name_of(7), "<none>");
    add_process(8, "", "8 x) S 1 ");
    EXPECT_EQ(name_of(8), "<none>");
    add_process(9, "", "9 (x S 1 ");
    EXPECT_EQ(name_of(9), "<none>");
    add_process(10, "", "10 () S 1 ");
    EXPECT_EQ(name_of(10), "<none>");
}

TEST_F(proc_get_pidname_at_tree, empty_or_unreadable_stat_gives_no_name) {
    add_process(7, "7 (left) S "s, "");
    EXPECT_EQ(name_of(7), "<none>");
    add_cmdline(8, "8 (left) S "s);
    dir_.make_folder("8/stat");
    EXPECT_EQ(name_of(8), "<none>");
}

TEST_F(proc_get_pidname_at_tree, without_a_stat_file_the_command_line_is_parsed_instead) {
    add_cmdline(7, "7 (ghost) R 1 \0"s);
    EXPECT_EQ(name_of(7), "ghost");
}

TEST_F(proc_get_pidname_at_tree, without_any_file_the_buffer_s_old_content_is_parsed) {
    std::string buffer = "5 (left over) S 1"s + std::string(20, '\0');
    EXPECT_EQ(proc_get_pidname_at(root(), 5, buffer.data(), buffer.size()), 1);
    EXPECT_STREQ(buffer.c_str(), "left over");
    EXPECT_EQ(name_of(5), "<none>");
}

TEST_F(proc_get_pidname_at_tree, nul_is_the_buffer_s_last_byte_not_the_one_after_the_command_line) {
    add_cmdline(7, "/bin/ab");  // no NUL of its own
    EXPECT_EQ(name_of(7, 12, 'z'), "abzzzz");
}

TEST_F(proc_get_pidname_at_tree, nul_is_the_buffer_s_last_byte_not_the_one_after_the_stat_line) {
    add_process(3, "0123456789 (old) tail", "3 (new) S");  // the stat line overwrites only the first bytes
    EXPECT_EQ(name_of(3), "old");
}

TEST_F(proc_get_pidname_at_tree, short_buffer_cuts_the_name) {
    add_process(7, "/usr/bin/pellora\0"s, "7 (stat) S 1 ");
    EXPECT_EQ(name_of(7, 17), "pellora");
    EXPECT_EQ(name_of(7, 16), "pellor");
    EXPECT_EQ(name_of(7, 11), "p");
}

TEST_F(proc_get_pidname_at_tree, buffer_too_short_for_the_name_falls_back_to_the_cut_stat_line) {
    add_process(7, "/usr/bin/pellora\0"s, "7 (x) S 1 ");
    EXPECT_EQ(name_of(7, 10), "x");   // "/usr/bin/" has nothing after its last slash
    EXPECT_EQ(name_of(7, 5), "usr");  // "/usr"
    add_process(8, "sh\0"s, "8 (long name) S 1 ");
    EXPECT_EQ(name_of(8, 9), "<none>");   // too short for the closing parenthesis
    EXPECT_EQ(name_of(8, 14), "<none>");  // too short for the blank after it
    EXPECT_EQ(name_of(8, 15), "long name");
}

TEST_F(proc_get_pidname_at_tree, buffer_of_one_byte_holds_no_name) {
    add_process(7, "/bin/x\0"s, "7 (x) S 1 ");
    EXPECT_EQ(name_of(7, 1), "<none>");
}

TEST_F(proc_get_pidname_at_tree, bytes_after_the_buffer_do_not_change) {
    add_process(7, "/usr/bin/pellora\0-v\0"s, "7 (x) S 1 ");
    std::string buffer(16, '#');
    EXPECT_EQ(proc_get_pidname_at(root(), 7, buffer.data(), 12), 1);
    EXPECT_STREQ(buffer.c_str(), "pe");
    EXPECT_EQ(buffer.substr(12), "####");
    buffer.assign(4, '#');
    EXPECT_EQ(proc_get_pidname_at(root(), 7, buffer.data(), 0), 0);
    EXPECT_EQ(buffer, "####");
}

TEST_F(proc_get_pidname_at_tree, too_long_command_line_path_falls_back_to_the_stat_line) {
    // 127 bytes is the longest path; "/7/stat" has 7 bytes and "/7/cmdline" has 10.
    const std::string deep = dir_.path(std::string(120 - dir_.path().size() - 1, 'd'));
    ASSERT_EQ(deep.size(), 120u);
    std::string name = std::filesystem::path(deep).filename().string();
    dir_.write_file(name + "/7/cmdline", "/bin/long\0"s);
    dir_.write_file(name + "/7/stat", "7 (short) S 1 ");
    char buffer[64] = "";
    EXPECT_EQ(proc_get_pidname_at(deep.c_str(), 7, buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, "short");
}

TEST_F(proc_get_pidname_at_tree, too_long_stat_path_gives_no_name) {
    const std::string deep = dir_.path(std::string(121 - dir_.path().size() - 1, 'd'));
    std::string name = std::filesystem::path(deep).filename().string();
    dir_.write_file(name + "/7/cmdline", "/bin/long\0"s);
    dir_.write_file(name + "/7/stat", "7 (short) S 1 ");
    char buffer[64] = "5 (left) S";  // must not be parsed either
    EXPECT_EQ(proc_get_pidname_at(deep.c_str(), 7, buffer, sizeof buffer), 0);
}

TEST(proc_get_pidname, finds_the_name_of_the_caller) {
    char buffer[256] = "";
    ASSERT_EQ(proc_get_pidname(getpid(), buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, program_invocation_short_name);
}

TEST(proc_get_pidname, ended_process_has_no_name) {
    char buffer[256] = "";
    EXPECT_EQ(proc_get_pidname(gone_pid(), buffer, sizeof buffer), 0);
}

TEST_F(proc_ppid_at_tree, is_the_fourth_field) {
    add_stat(42, "42 (sh) S 17 42 42 0 -1\n");
    EXPECT_EQ(proc_ppid_at(root(), 42), 17);
    add_stat(43, "43 (init) S 0 1 1");
    EXPECT_EQ(proc_ppid_at(root(), 43), 0);
    add_stat(44, "44 (last) S 4194303");
    EXPECT_EQ(proc_ppid_at(root(), 44), 4194303);
}

TEST_F(proc_ppid_at_tree, run_of_white_space_separates_once) {
    add_stat(42, "42 \t (sh)\n\v S  \f\r 17 5");
    EXPECT_EQ(proc_ppid_at(root(), 42), 17);
}

TEST_F(proc_ppid_at_tree, name_with_blanks_gives_the_wrong_field) {
    add_stat(42, "42 (one two) S 17 9");
    EXPECT_EQ(proc_ppid_at(root(), 42), 0);  // "S"
    add_stat(43, "43 (x y 99 z) S 17 9");
    EXPECT_EQ(proc_ppid_at(root(), 43), 99);
}

TEST_F(proc_ppid_at_tree, text_that_ends_before_the_field_gives_minus_one) {
    add_stat(42, "42 (sh) S");
    EXPECT_EQ(proc_ppid_at(root(), 42), -1);
    add_stat(43, "43");
    EXPECT_EQ(proc_ppid_at(root(), 43), -1);
    add_stat(44, "44 (" + std::string(300, 'x') + ") S 17 ");  // beyond the bytes of one read
    EXPECT_EQ(proc_ppid_at(root(), 44), -1);
}

TEST_F(proc_ppid_at_tree, empty_or_missing_stat_gives_minus_one) {
    add_stat(42, "");
    EXPECT_EQ(proc_ppid_at(root(), 42), -1);
    add_stat(43, "\0 a b 17"s);
    EXPECT_EQ(proc_ppid_at(root(), 43), -1);
    EXPECT_EQ(proc_ppid_at(root(), 44), -1);
}

TEST(proc_ppid, finds_the_parent_of_the_caller) {
    EXPECT_EQ(proc_ppid(getpid()), getppid());
}

TEST(proc_ppid, child_has_the_caller_as_its_parent) {
    test_pipe hold;
    pid_t child = fork_child([&hold] {
        hold.in.reset();
        read_all(hold.out.get());
        return 0;
    });
    EXPECT_EQ(proc_ppid(child), getpid());
    hold.in.reset();
    wait_status(child);
}

TEST(proc_ppid, ended_process_has_none) {
    EXPECT_EQ(proc_ppid(gone_pid()), -1);
}

TEST_F(proc_is_kernel_thread_at_tree, is_a_process_without_an_executable_link) {
    dir_.make_folder("7");
    std::filesystem::create_symlink("/bin/true", dir_.path("7/exe"));
    dir_.make_folder("8");
    std::filesystem::create_symlink("/deleted/long/ago", dir_.path("8/exe"));
    dir_.make_folder("9");
    add(10, "exe", "no link");
    EXPECT_EQ(proc_is_kernel_thread_at(root(), 7), 0);
    EXPECT_EQ(proc_is_kernel_thread_at(root(), 8), 0);
    EXPECT_EQ(proc_is_kernel_thread_at(root(), 9), 1);
    EXPECT_EQ(proc_is_kernel_thread_at(root(), 10), 1);
    EXPECT_EQ(proc_is_kernel_thread_at(root(), 11), 1);
}

TEST(proc_is_kernel_thread, caller_is_none_but_an_ended_process_counts_as_one) {
    EXPECT_EQ(proc_is_kernel_thread(getpid()), 0);
    EXPECT_EQ(proc_is_kernel_thread(gone_pid()), 1);
}

TEST_F(proc_list_at_tree, lists_names_that_begin_with_a_digit) {
    add_entries({"2", "17", "4194303", "12abc", "self", "net", "abc3", "x", "-5", "+6", " 7"});
    dir_.write_file("99", "a file");
    EXPECT_EQ(listed(), (pid_list{2, 12, 17, 99, 4194303}));
}

TEST_F(proc_list_at_tree, lists_pid_0_only_for_a_name_that_begins_with_0) {
    add_entries({"0", "5"});
    EXPECT_EQ(listed(), (pid_list{0, 5}));
    add_entries({"0zero", "none"});
    EXPECT_EQ(listed(), (pid_list{0, 0, 5}));
}

TEST_F(proc_list_at_tree, leaves_out_init_the_caller_and_its_parent) {
    add_entries({"1", "2"});
    dir_.make_folder(std::to_string(getpid()));
    dir_.make_folder(std::to_string(getppid()));
    EXPECT_EQ(listed(), pid_list{2});
}

TEST_F(proc_list_at_tree, leaves_out_the_pid_to_skip) {
    add_entries({"2", "3", "4"});
    EXPECT_EQ(listed(3), (pid_list{2, 4}));
    EXPECT_EQ(listed(77), (pid_list{2, 3, 4}));
}

TEST_F(proc_list_at_tree, leaves_out_the_extra_pid_to_ignore) {
    add_entries({"2", "3", "4"});
    EXPECT_EQ(listed(), (pid_list{2, 3, 4}));
    proc_extra_ignore_pid = 4;
    EXPECT_EQ(listed(), (pid_list{2, 3}));
    EXPECT_EQ(listed(2), pid_list{3});
    proc_extra_ignore_pid = -1;
    EXPECT_EQ(listed(), (pid_list{2, 3, 4}));
}

TEST_F(proc_list_at_tree, keeps_the_order_of_the_directory) {
    add_entries({"300", "2", "41", "1000", "7", "55", "12"});
    pid_list wanted;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
        wanted.push_back(std::stoi(entry.path().filename().string()));
    }
    pid_list pids(7);
    ASSERT_EQ(proc_list_at(root(), pids.data(), 7, -1), 7);
    EXPECT_EQ(pids, wanted);
}

TEST_F(proc_list_at_tree, stores_at_most_its_capacity) {
    add_entries({"2", "3", "4", "5"});
    pid_list all(4);
    ASSERT_EQ(proc_list_at(root(), all.data(), 4, -1), 4);
    pid_list pids(4, -77);
    EXPECT_EQ(proc_list_at(root(), pids.data(), 2, -1), 2);
    EXPECT_EQ(pids, (pid_list{all[0], all[1], -77, -77}));
}

TEST_F(proc_list_at_tree, pids_left_out_use_no_capacity) {
    add_entries({"1", "2", "3"});
    EXPECT_EQ(listed(2, 1), pid_list{3});
}

TEST_F(proc_list_at_tree, capacity_of_zero_stores_nothing) {
    add_entries({"2", "3"});
    EXPECT_EQ(proc_list_at(root(), nullptr, 0, -1), 0);
}

TEST_F(proc_list_at_tree, missing_root_is_an_empty_list) {
    pid_t pid = -77;
    EXPECT_EQ(proc_list_at(dir_.path("gone").c_str(), &pid, 1, -1), 0);
    EXPECT_EQ(pid, -77);
}

TEST_F(proc_list_at_tree, closes_the_directory) {
    add_entries({"2"});
    int before = count_open_fds();
    (void)listed();
    EXPECT_EQ(count_open_fds(), before);
}

// Uses the /proc of a pid namespace, so that it does not depend on the machine's processes.
TEST(proc_list, lists_the_other_processes_of_a_real_proc) {
    std::string found = in_private_proc([](pid_t a, pid_t b) {
        std::string text;
        auto add = [&](int capacity, pid_t skip) {
            pid_t pids[32];
            int count = proc_list(pids, capacity, skip);
            for (int i = 0; i < count; i++) {
                text += pids[i] == a ? 'a' : pids[i] == b ? 'b' : '?';
            }
            text += '|';
        };
        add(32, -1);
        add(32, a);
        add(1, -1);
        add(0, -1);
        proc_extra_ignore_pid = b;
        add(32, -1);
        add(32, a);
        return text;
    });
    if (found == "<no namespace>") {
        GTEST_SKIP() << "needs a pid namespace";
    }
    EXPECT_EQ(found, "ab|b|a||a||");
}

TEST(proc_extra_ignore_pid, is_none_at_the_start) {
    EXPECT_EQ(proc_extra_ignore_pid, -1);
}

TEST(proc_plist_remove_pid, marks_only_the_first_of_two) {
    pid_list pids = {5, 6, 7, 6};
    proc_plist_remove_pid(pids.data(), 0, 4, 6);
    EXPECT_EQ(pids, (pid_list{5, -1, 7, 6}));
    proc_plist_remove_pid(pids.data(), 0, 4, 6);
    EXPECT_EQ(pids, (pid_list{5, -1, 7, -1}));
}

TEST(proc_plist_remove_pid, searches_from_the_first_index_up_to_the_end) {
    pid_list pids = {6, 6, 6, 6};
    proc_plist_remove_pid(pids.data(), 2, 4, 6);
    EXPECT_EQ(pids, (pid_list{6, 6, -1, 6}));
    pids = {5, 7, 8, 6};
    proc_plist_remove_pid(pids.data(), 0, 3, 6);
    EXPECT_EQ(pids, (pid_list{5, 7, 8, 6}));
}

TEST(proc_plist_remove_pid, missing_pid_changes_nothing) {
    pid_list pids = {5, 6, 7};
    proc_plist_remove_pid(pids.data(), 0, 3, 8);
    EXPECT_EQ(pids, (pid_list{5, 6, 7}));
}

TEST(proc_plist_remove_pid, empty_range_changes_nothing) {
    pid_list pids = {6, 6};
    proc_plist_remove_pid(pids.data(), 1, 1, 6);
    proc_plist_remove_pid(pids.data(), 2, 0, 6);
    proc_plist_remove_pid(nullptr, 0, 0, 6);
    EXPECT_EQ(pids, (pid_list{6, 6}));
}

namespace {

pid_list found_by_name(const char* root, const char* name, int capacity = 32) {
    pid_list pids(100, -77);
    int count = 12345;
    proc_find_pid_by_name(root, name, pids.data(), &count, capacity);
    EXPECT_GE(count, 0);
    EXPECT_LE(count, capacity);
    EXPECT_EQ(std::count(pids.begin() + count, pids.end(), -77), 100 - count) << "stored beyond the count";
    pids.resize(static_cast<size_t>(count));
    std::sort(pids.begin(), pids.end());
    return pids;
}

}  // namespace

TEST_F(proc_find_pid_by_name_tree, compares_the_whole_name_exactly) {
    add_process(7, "/usr/bin/pellora\0-v\0"s, "7 (x) S 1 ");
    add_process(8, "/usr/bin/pellora2\0"s, "8 (x) S 1 ");
    add_process(9, "/usr/bin/Pellora\0"s, "9 (x) S 1 ");
    add_process(10, "/usr/bin/pell\0"s, "10 (x) S 1 ");
    add_process(11, "", "11 (pellora) S 1 ");
    EXPECT_EQ(found_by_name(root(), "pellora"), (pid_list{7, 11}));
    EXPECT_EQ(found_by_name(root(), "PELLORA"), pid_list{});
    EXPECT_EQ(found_by_name(root(), "x"), pid_list{});
    EXPECT_EQ(found_by_name(root(), ""), pid_list{});
}

TEST_F(proc_find_pid_by_name_tree, stores_at_most_its_capacity) {
    for (int pid = 100; pid < 140; pid++) {
        add_process(pid, "/bin/same\0"s, "x");
    }
    EXPECT_EQ(found_by_name(root(), "same", 32).size(), 32u);
    EXPECT_EQ(found_by_name(root(), "same", 40).size(), 40u);
    EXPECT_EQ(found_by_name(root(), "same", 41).size(), 40u);
    EXPECT_EQ(found_by_name(root(), "same", 1).size(), 1u);
    EXPECT_EQ(found_by_name(root(), "same", 0).size(), 0u);
}

TEST_F(proc_find_pid_by_name_tree, searches_only_names_that_begin_with_a_digit) {
    dir_.write_file("self/cmdline", "/bin/same\0"s);
    dir_.write_file("-7/cmdline", "/bin/same\0"s);
    add_process(7, "/bin/same\0"s, "x");
    EXPECT_EQ(found_by_name(root(), "same"), pid_list{7});
}

TEST_F(proc_find_pid_by_name_tree, leaves_no_process_out) {
    for (pid_t pid : {1, getpid(), getppid()}) {
        add_process(pid, "/bin/same\0"s, "x");
    }
    pid_list wanted = {1, getpid(), getppid()};
    std::sort(wanted.begin(), wanted.end());
    wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
    EXPECT_EQ(found_by_name(root(), "same"), wanted);
}

TEST_F(proc_find_pid_by_name_tree, vanished_process_does_not_get_the_name_of_another) {
    add_process(7, "", "7 (same) S 1 ");
    for (int pid = 8; pid < 40; pid++) {
        dir_.make_folder(std::to_string(pid));
    }
    EXPECT_EQ(found_by_name(root(), "same"), pid_list{7});
    add_process(7, "/bin/odd (same) name\0"s, "7 (odd) S 1 ");
    EXPECT_EQ(found_by_name(root(), "same"), pid_list{});
}

TEST_F(proc_find_pid_by_name_tree, missing_root_finds_nothing) {
    EXPECT_EQ(found_by_name(dir_.path("gone").c_str(), "same"), pid_list{});
}

TEST_F(proc_find_pid_by_name_tree, closes_the_directory) {
    add_process(7, "/bin/same\0"s, "x");
    int before = count_open_fds();
    EXPECT_EQ(found_by_name(root(), "same", 1), pid_list{7});
    EXPECT_EQ(found_by_name(root(), "same", 32), pid_list{7});
    EXPECT_EQ(count_open_fds(), before);
}
