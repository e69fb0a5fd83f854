#include "archive/member_core.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "proc/proc_list.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/fake_dumper.h"
#include "tests/unit/support/pipes.h"

namespace {

// The sleeper is this test program, started again. A system program is no substitute: the first word may be
// anything, and busybox would look for an applet of that name.
constexpr const char* sleeper_request = "ZARVO_TEST_SLEEPER";

const bool is_no_sleeper = [] {
    if (getenv(sleeper_request) != nullptr) {
        char byte;
        _exit(static_cast<int>(read(STDIN_FILENO, &byte, 1)));
    }
    return true;
}();

// Sleeps until its test is over. Its command line is only `first_word`.
class sleeper {
public:
    explicit sleeper(const std::string& first_word) {
        EXPECT_TRUE(is_no_sleeper);
        int in_fd = input_.out.get();
        pid_ = fork_child([&first_word, in_fd] {
            dup2(in_fd, STDIN_FILENO);
            setenv(sleeper_request, "", 1);
            execl("/proc/self/exe", first_word.c_str(), static_cast<char*>(nullptr));
            return 127;
        });
        std::string path = "/proc/" + std::to_string(pid_) + "/cmdline";
        EXPECT_TRUE(eventually([&] {
            std::string command(first_word.size() + 1, 'x');
            read_file_once(path.c_str(), command.data(), command.size());
            return command == first_word + '\0';
        }));
    }
    sleeper(const sleeper&) = delete;
    sleeper& operator=(const sleeper&) = delete;
    ~sleeper() {
        kill(pid_, SIGKILL);
        wait_status(pid_);
    }

    pid_t pid() const { return pid_; }
    std::string number() const { return std::to_string(pid_); }

private:
    test_pipe input_;
    pid_t pid_ = -1;
};

// Dumps one process into an archive in memory. Checks that no descriptor is left open.
class dump_one_test : public testing::Test {
protected:
    void SetUp() override {
        ignore_broken_pipes();
        fake_dumper::use("/nonexistent/dumper");
        before_ = open_fds();
    }
    void TearDown() override { EXPECT_EQ(open_fds(), before_); }

    int dump(pid_t pid) {
        pids = {pid};
        return dump_at(0);
    }
    int dump_at(int index) {
        int result = -1;
        messages = capture_stderr([&] {
            result =
                dump_one(archive.handle(), archive.fd(), pids.data(), index, static_cast<int>(pids.size()));
        });
        return result;
    }
    int dump() { return dump(target.pid()); }

    std::string dir() const { return "victim." + target.number() + "/"; }
    std::string error() const { return "dump error for pid " + target.number(); }
    std::string failed() const { return "dump_one: failed dumping pid=" + target.number() + "\n"; }
    std::string killed() const {
        return "dump: killed the dumper of pid " + target.number() + ": timed out\n";
    }
    std::string warning(const std::string& err, const std::string& announced) const {
        return "WARNING: err=" + err + " clen=" + announced + " pid=" + target.number() + "\n";
    }
    // Expects no member, and the message about it between `before` and `after`.
    void expect_refused(const std::string& what, const std::string& before = "",
                        const std::string& after = "") {
        EXPECT_EQ(dump(), 0) << what;
        EXPECT_EQ(archive.bytes(), "") << what;
        EXPECT_EQ(messages, before + failed() + after) << what;
    }

    sleeper target{"/usr/lib/victim"};
    test_archive archive{"top/"};
    std::vector<pid_t> pids;
    std::string messages;

private:
    std::set<int> before_;
};

using strings = std::vector<std::string>;

const std::string hang = "exec sleep 1000\n";

}  // namespace

TEST_F(dump_one_test, stores_the_core_and_the_descriptors) {
    fake_dumper dumper(announce(4) + "printf core");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, "");
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (strings{"top/" + dir() + "core", "top/" + dir() + "fdmap"}));
    EXPECT_EQ(listing.entries[0].data, "core");
    EXPECT_NE(listing.entries[1].data.find(" 0 -> pipe:"), std::string::npos) << listing.entries[1].data;
    EXPECT_EQ(pids, std::vector<pid_t>{target.pid()});
}

TEST_F(dump_one_test, passes_the_pid_after_the_fixed_arguments) {
    fake_dumper dumper(
        "text=\"$# $1 $2 $3\"\nprintf 'Core of:%s bytes; and covered: \\n' ${#text} >&2\n"
        "printf '%s' \"$text\"");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(archive.finish().entries.at(0).data, "3 -c /dev/stdout " + target.number());
}

TEST_F(dump_one_test, pads_cores_of_all_sizes_correctly) {
    for (size_t size : {1, 511, 512, 513, 16384, 70000, 300000}) {
        fake_dumper dumper(announce(size) + "head -c " + std::to_string(size) + " /dev/zero");
        EXPECT_EQ(dump(), 0);
        EXPECT_EQ(messages, "");
    }
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(listing.entries.size(), 14u);
}

TEST_F(dump_one_test, names_processes_after_their_first_argument) {
    fake_dumper dumper(announce(1) + "printf c");
    for (const auto& [word, name] : std::vector<std::pair<std::string, std::string>>{
             {"/usr/bin/program", "program"},
             {"plain", "plain"},
             {"./a.out", "a.out"},
             {"a/b/", ""},
             {"title: name@pts/0", "0"},
             {"with blanks", "with blanks"},
             {"/" + std::string(79, 'n'), std::string(79, 'n')},
             {std::string(80, 'n'), std::string(80, 'n')},
             {std::string(200, 'n'), std::string(80, 'n')},
             {"/" + std::string(100, 'd') + "/name", std::string(79, 'd')},
         }) {
        test_archive named;
        sleeper process(word);
        pid_t pid = process.pid();
        EXPECT_EQ(dump_one(named.handle(), named.fd(), &pid, 0, 1), 0);
        strings names = named.finish().names();
        std::string folder = name + "." + process.number() + "/";
        EXPECT_EQ(names, (strings{(folder + "core").substr(0, 100), (folder + "fdmap").substr(0, 100)}));
    }
}

TEST_F(dump_one_test, folder_of_a_process_without_a_command_line_is_a_dot_and_the_pid) {
    // A zombie has none, like a kernel thread.
    fake_dumper dumper(announce(1) + "printf c");
    pid_t zombie = fork_child([] { return 0; });
    siginfo_t info;
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT), 0);
    EXPECT_EQ(dump(zombie), 0);
    wait_status(zombie);
    EXPECT_EQ(archive.finish().names().at(0), "top/." + std::to_string(zombie) + "/core");
}

TEST_F(dump_one_test, process_whose_command_line_cannot_be_read_is_named_unknown) {
    fake_dumper dumper(announce(1) + "printf c");
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    EXPECT_EQ(dump(gone), 0);
    std::string folder = "top/unknown." + std::to_string(gone) + "/";
    EXPECT_EQ(archive.finish().names(), (strings{folder + "core", folder + "fdmap"}));
}

TEST_F(dump_one_test, removes_the_other_pids_that_the_dump_covers) {
    std::string own = target.number();
    fake_dumper dumper(announce(1, "30 10 " + own + " 99") + "printf c");
    pids = {10, target.pid(), 20, 30, -1, 30};
    EXPECT_EQ(dump_at(1), 0);
    // The search begins at the process's own entry, and only the first of two equal pids is removed.
    EXPECT_EQ(pids, (std::vector<pid_t>{10, -1, 20, -1, -1, 30}));
    EXPECT_EQ(archive.finish().names(), (strings{"top/" + dir() + "core", "top/" + dir() + "fdmap"}));
}

TEST_F(dump_one_test, pids_after_the_line_are_not_removed) {
    fake_dumper dumper(say(core_announcement("1", "7") + "8 9\n") + "printf c");
    pids = {target.pid(), 7, 8, 9};
    EXPECT_EQ(dump_at(0), 0);
    EXPECT_EQ(pids, (std::vector<pid_t>{target.pid(), -1, 8, 9}));
    EXPECT_EQ(messages, "");
}

TEST_F(dump_one_test, ignores_letters_between_the_pids_of_a_line) {
    fake_dumper dumper(announce(1, "a7 b8x 9") + "printf c");
    pids = {target.pid(), 7, 8, 9};
    EXPECT_EQ(dump_at(0), 0);
    EXPECT_EQ(pids, (std::vector<pid_t>{target.pid(), -1, -1, -1}));
}

TEST_F(dump_one_test, length_of_0_stores_nothing_but_removes_covered_pids) {
    fake_dumper dumper(announce(0, "7") + say("no such process\n"));
    pids = {target.pid(), 7};
    EXPECT_EQ(dump_at(0), 0);
    EXPECT_EQ(archive.bytes(), "");
    EXPECT_EQ(messages, failed());
    EXPECT_EQ(pids, (std::vector<pid_t>{target.pid(), -1}));
}

TEST_F(dump_one_test, lines_without_a_valid_length_store_nothing) {
    for (const char* line : {"\n", "short\n", "Core of:\n", "Core of:none\n", "Core of:-5 bytes\n",
                             "Core of:12345678901234567890 bytes\n", "Core of:2147483648 bytes\n"}) {
        fake_dumper dumper(say(line) + "printf core");
        expect_refused(line);
    }
}

TEST_F(dump_one_test, accepts_a_line_of_511_bytes) {
    std::string line = core_announcement("1");
    std::string longest = line.substr(0, line.size() - 1) + std::string(511 - line.size(), 'x') + "\n";
    ASSERT_EQ(longest.size(), 511u);
    fake_dumper dumper(say(longest) + "printf c");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(archive.finish().entries.size(), 2u);
}

TEST_F(dump_one_test, line_of_512_bytes_with_its_newline_stores_nothing) {
    std::string line = core_announcement("1");
    fake_dumper dumper(say(line.substr(0, line.size() - 1) + std::string(512 - line.size(), 'x') + "\n") +
                       "printf c");
    expect_refused("512");
}

TEST_F(dump_one_test, reports_a_line_of_more_than_512_bytes) {
    const std::string report =
        "dump_read_ctl_line: Failed to read ctl line. Read length: 512."
        "Buffer is too small, current buffer size: 512\n";
    std::string thousand;
    for (int pid = 1000; pid < 2000; pid++) {
        thousand += std::to_string(pid) + " ";
    }
    std::string line = core_announcement("1");
    for (const std::string& text :
         {core_announcement("1", thousand),
          line.substr(0, line.size() - 1) + std::string(513 - line.size(), 'x') + "\n"}) {
        fake_dumper dumper(say(text) + "printf c");
        expect_refused(text, report);
    }
}

TEST_F(dump_one_test, accepts_a_line_before_more_text_than_the_buffer_holds) {
    fake_dumper dumper(say(core_announcement("1") + std::string(600, 'm')) + "printf c");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, "");
    EXPECT_EQ(archive.finish().entries.size(), 2u);
}

TEST_F(dump_one_test, dumper_that_exits_without_a_newline_times_out) {
    for (const char* text : {"", "Core of:4 bytes; and covered: "}) {
        fake_dumper dumper(say(text), 200);
        expect_refused(text, killed());
    }
}

TEST_F(dump_one_test, kills_a_dumper_that_never_writes_a_line) {
    fake_dumper dumper(hang, 200);
    expect_refused("hang", killed(), error());
}

TEST_F(dump_one_test, stores_nothing_if_the_dumper_is_missing) {
    expect_refused("missing", "", error());
}

TEST_F(dump_one_test, stores_nothing_if_the_dumper_is_killed_before_its_line) {
    fake_dumper dumper("kill -9 $$", 200);
    expect_refused("killed", killed(), error());
}

TEST_F(dump_one_test, kills_a_dumper_that_hangs_after_its_line) {
    fake_dumper dumper(announce(10) + hang, 1000);
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, killed() + warning("0", "10") + error());
    ASSERT_GE(archive.bytes().size(), 512u);
    EXPECT_EQ(archive.bytes().substr(0, 512),
              tar_expected_header("top/" + dir() + "core", 10, tar_octal_field(archive.bytes(), 136, 12)));
}

TEST_F(dump_one_test, pads_a_short_core_with_zeros_and_shows_the_messages) {
    fake_dumper dumper(say(core_announcement("1000") + "first\n") + "head -c 600 /dev/zero | tr '\\0' c\n" +
                       say("last\n"));
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, warning("600", "1000") + "first\nlast\n");
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (strings{"top/" + dir() + "core", "top/" + dir() + "fdmap"}));
    EXPECT_EQ(listing.entries[0].data, std::string(600, 'c') + std::string(400, '\0'));
}

TEST_F(dump_one_test, cuts_a_core_that_is_too_long) {
    fake_dumper dumper(announce(4) + "printf corerest");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, warning("8", "4"));
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (strings{"top/" + dir() + "core", "top/" + dir() + "fdmap"}));
    EXPECT_EQ(listing.entries[0].data, "core");
}

TEST_F(dump_one_test, next_member_is_readable_if_the_dumper_dies_during_the_core) {
    fake_dumper dumper(announce(143360) + "head -c 50001 /dev/zero | tr '\\0' c\n" + say("dying\n") +
                       "kill -9 $$");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, warning("50001", "143360") + "dying\n" + error());
    tar_addfile(archive.handle(), "next", 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (strings{"top/" + dir() + "core", "top/next"}));
    EXPECT_EQ(listing.entries[0].data, std::string(50001, 'c') + std::string(143360 - 50001, '\0'));
}

TEST_F(dump_one_test, next_member_is_readable_if_a_wait_fails_during_the_core) {
    constexpr int no_filters = 77;
    fake_dumper dumper(announce(100000) + "head -c 100000 /dev/zero");
    int status = run_in_child([this] {
        if (!fail_calls({{SYS_poll, ENOMEM}})) {
            return no_filters;
        }
        const int result = dump();
        tar_addfile(archive.handle(), "next", 0);
        return result == 0 && messages.find("WARNING: err=") != std::string::npos ? 0 : 1;
    });
    if (exited_with(status, no_filters)) {
        GTEST_SKIP() << "this kernel cannot filter system calls";
    }
    EXPECT_TRUE(exited_with(status, 0));
    tar_listing listing = tar_read(archive.bytes());
    EXPECT_EQ(listing.trouble, "");
    ASSERT_GE(listing.entries.size(), 2u);
    EXPECT_EQ(listing.entries[0].data.size(), 100000u);
    EXPECT_EQ(listing.entries.back().name, "top/next");
}

TEST_F(dump_one_test, stores_no_map_if_the_dumper_fails_after_the_core) {
    fake_dumper dumper(announce(4) + "printf core; exit 1");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, error());
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(listing.names(), strings{"top/" + dir() + "core"});
}

TEST_F(dump_one_test, megabyte_of_messages_does_not_block_the_core) {
    fake_dumper dumper(announce(200000) + "head -c 100000 /dev/zero\nhead -c 1000000 /dev/zero >&2\n" +
                       "head -c 100000 /dev/zero\n");
    EXPECT_EQ(dump(), 0);
    EXPECT_EQ(messages, "");
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(listing.entries.size(), 2u);
}

TEST_F(dump_one_test, client_that_disconnects_during_the_core_is_reported_once_and_ends_the_archive) {
    fake_dumper dumper(say(core_announcement("3000000") + "reason\n") + "head -c 3000000 /dev/zero\n");
    test_pipe client;
    tar_handle* tar = tar_new(client.in.get(), nullptr);
    std::thread reader([&] {
        char block[2000];
        EXPECT_GT(read(client.out.get(), block, sizeof block), 0);
        client.out.reset();
    });
    pid_t pid = target.pid();
    int result = 0;
    messages = capture_stderr([&] { result = dump_one(tar, client.in.get(), &pid, 0, 1); });
    reader.join();
    tar_abandon(tar);
    EXPECT_EQ(result, 32);
    EXPECT_EQ(messages, "ABORT!\nreason\n");
}

TEST_F(dump_one_test, shortens_long_program_names_and_keeps_their_files_in_one_folder) {
    fake_dumper dumper(announce(1) + "printf c");
    const std::string top = "debug-20261121-183403-c0/";
    for (size_t length : {10, 53, 54, 55, 60, 64, 70, 79}) {
        const std::string program(length, 'n');
        sleeper process("/" + program);
        test_archive stored(top.c_str());
        pid_t pid = process.pid();
        EXPECT_EQ(dump_one(stored.handle(), stored.fd(), &pid, 0, 1), 0);
        tar_listing listing = stored.finish();
        EXPECT_EQ(listing.trouble, "");
        const std::string end = "." + process.number() + "/";
        const size_t kept = std::min(length, 99 - top.size() - end.size() - std::string("fdmap").size());
        const std::string folder = top + program.substr(0, kept) + end;
        EXPECT_EQ(listing.names(), (strings{folder + "core", folder + "fdmap"}));
        EXPECT_LE((folder + "fdmap").size(), 99u);
    }
}

TEST_F(dump_one_test, writing_the_core_renews_the_time_limit) {
    fake_dumper dumper(announce(4) + "printf core");
    alarm(20);
    EXPECT_EQ(dump(), 0);
    unsigned left = alarm(0);
    EXPECT_GT(left, 290u);
    EXPECT_LE(left, 300u);
}

// Each step of a dumper may take its whole timeout, and two of those are longer than the limit.
TEST_F(dump_one_test, each_step_of_the_dumper_renews_the_time_limit) {
    // A FIFO for each step: with one for all, the script could read the word for the second step together
    // with the first and lose it.
    fake_dumper dumper("gate() { read line < \"${0%/*}/gate$1\"; }\n" + announce(4) +
                       "gate 1; printf core; gate 2; exec >&-; gate 3; exec 2>&-; gate 4");
    auto gate = [&dumper](int number) { return dumper.path("gate" + std::to_string(number)); };
    for (int number : {1, 2, 3, 4}) {
        ASSERT_EQ(mkfifo(gate(number).c_str(), 0600), 0);
    }
    auto open_gate = [&gate](int number) {
        unique_fd fifo(open(gate(number).c_str(), O_WRONLY | O_CLOEXEC));
        EXPECT_EQ(write(fifo.get(), "\n", 1), 1);
    };
    auto is_renewed = [] { return limit_left() > 290; };
    alarm(20);
    std::thread watcher([&] {
        EXPECT_TRUE(eventually(is_renewed)) << "by the control line";
        alarm(20);
        open_gate(1);
        EXPECT_TRUE(eventually(is_renewed)) << "by the core";
        alarm(20);
        open_gate(2);
        EXPECT_TRUE(eventually(is_renewed)) << "by the end of the core";
        alarm(20);
        open_gate(3);
        EXPECT_TRUE(eventually(is_renewed)) << "by the end of all output";
        alarm(20);
        open_gate(4);
    });
    EXPECT_EQ(dump(), 0);
    watcher.join();
    EXPECT_GT(alarm(0), 290u) << "by the end of the dumper";
    EXPECT_EQ(messages, "");
}

TEST_F(dump_one_test, leaves_the_process_running) {
    fake_dumper dumper(announce(4) + "printf core");
    EXPECT_EQ(dump(), 0);
    siginfo_t info = {};
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(target.pid()), &info, WEXITED | WSTOPPED | WNOHANG), 0);
    EXPECT_EQ(info.si_pid, 0) << "it has stopped or ended";
}

TEST_F(dump_one_test, leaves_no_child) {
    for (const std::string& script :
         {announce(4) + "printf core", announce(4) + hang, hang, std::string("exit 1"), announce(0)}) {
        fake_dumper dumper(script, 200);
        dump();
        siginfo_t info = {};
        EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT), 0) << "the target is the only child";
        EXPECT_EQ(info.si_pid, 0) << script;
    }
}
