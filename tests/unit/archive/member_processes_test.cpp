#include "archive/member_processes.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "archive/manifest.h"
#include "archive/member_file.h"
#include "archive/process_table.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// A /proc with processes that tests make up.
struct proc_fixture {
    temp_dir folder;

    void add_file(int pid, const std::string& name, const std::string& text) const {
        folder.write_file(std::to_string(pid) + "/" + name, text);
    }
    void add_link(int pid, const std::string& name, const std::string& target) const {
        EXPECT_EQ(symlink(target.c_str(), path(pid, name).c_str()), 0) << name;
    }
    // A process with a stat file and nothing but empty folders.
    void add(int pid, const std::string& name = "app") const {
        add_file(pid, "stat",
                 std::to_string(pid) + " (" + name +
                     ") S 1 1 1 0 -1 0 0 0 0 0 200 100 0 0 20 0 1 0 4000 0 10 0\n");
        folder.make_folder(std::to_string(pid) + "/task");
        folder.make_folder(std::to_string(pid) + "/fd");
    }
    std::string path(int pid, const std::string& name) const {
        return folder.path(std::to_string(pid) + "/" + name);
    }
};

struct look_result {
    int result = -1;
    std::string messages;  // on standard error
    tar_listing listing;   // with the manifest

    process_looks looks;

    // The members' names after "processes.YYYYMMDD-HHMMSS/".
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const tar_entry& entry : listing.entries) {
            if (entry.name != "manifest.txt") {
                EXPECT_TRUE(has_shape(entry.name.substr(0, 26), "processes.99999999-999999/")) << entry.name;
                names.push_back(entry.name.substr(26));
            }
        }
        return names;
    }
    std::string data(const std::string& wanted) const {
        for (const tar_entry& entry : listing.entries) {
            if (("/" + entry.name).ends_with("/" + wanted)) {
                return entry.data;
            }
        }
        return "no member " + wanted;
    }
    // The notes in the manifest, without the times of the folders.
    std::string notes() const {
        std::string notes;
        std::istringstream lines(data("manifest.txt"));
        for (std::string line; std::getline(lines, line);) {
            if (size_t at = line.find("error              processes."); at != std::string::npos) {
                notes += line.substr(line.find_first_of("/:", at)) + "\n";
            }
        }
        return notes;
    }
    const process_sample* sample(size_t index) const {
        return static_cast<const process_sample*>(static_cast<const void*>(looks.samples[0].data.get())) +
               index;
    }
    size_t sample_count() const { return looks.samples[0].length / sizeof(process_sample); }
    std::string command(size_t index) const {
        return {looks.commands.data.get() + sample(index)->command_at, sample(index)->command_length};
    }
};

// One look at the processes in `root`. `around` calls its argument, which looks.
look_result look_at(
    const std::string& root, const std::function<void(const std::function<void()>&)>& around =
                                 [](const std::function<void()>& look) { look(); }) {
    look_result seen;
    seen.looks.root = root.c_str();
    test_archive archive;
    manifest list;
    manifest_begin(&list, archive.handle());
    seen.messages = capture_stderr(
        [&] { around([&] { seen.result = stream_process_look(archive.handle(), &seen.looks); }); });
    manifest_store(&list, archive.handle());
    seen.listing = archive.finish();
    EXPECT_EQ(seen.listing.trouble, "");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.looks.count, 1);
    return seen;
}

look_result look_at(const proc_fixture& fixture) {
    return look_at(fixture.folder.path());
}

std::string error_line(const std::string& name, int error) {
    return name + ": " + strerror(error) + "\n";
}

using strings = std::vector<std::string>;

}  // namespace

TEST(stream_process_look, stores_the_files_links_and_threads_of_a_process) {
    proc_fixture fixture;
    fixture.add(42);
    for (const char* name :
         {"status", "cmdline", "maps", "limits", "wchan", "syscall", "stack", "io", "cgroup"}) {
        fixture.add_file(42, name, std::string("this is ") + name);
    }
    fixture.add_link(42, "exe", "/usr/bin/app");
    fixture.add_link(42, "cwd", "/");
    fixture.add_link(42, "fd/0", "/dev/null");
    for (const char* name : {"stat", "status", "wchan"}) {
        fixture.add_file(42, std::string("task/43/") + name, std::string("thread's ") + name);
    }
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), (strings{"42/stat", "42/status", "42/wchan", "42/syscall", "42/stack", "42/io",
                                     "42/limits", "42/cgroup", "42/task/43/stat", "42/task/43/status",
                                     "42/task/43/wchan", "42/links", "42/cmdline", "42/maps"}));
    EXPECT_EQ(seen.data("42/wchan"), "this is wchan");
    EXPECT_EQ(seen.data("43/wchan"), "thread's wchan");
    EXPECT_EQ(seen.data("42/links"), "exe -> /usr/bin/app\ncwd -> /\nfd/0 -> /dev/null\n");
    EXPECT_EQ(seen.notes(), "");
}

TEST(stream_process_look, never_stores_environment_and_memory) {
    proc_fixture fixture;
    fixture.add(42);
    for (const char* name : {"environ", "mem", "auxv", "task/42/environ", "task/42/mem"}) {
        fixture.add_file(42, name, "secret");
    }
    EXPECT_EQ(look_at(fixture).names(), strings{"42/stat"});
}

TEST(stream_process_look, processes_are_in_the_order_of_their_pids) {
    proc_fixture fixture;
    for (int pid : {100, 9, 1, 4000, 31, 2}) {
        fixture.add(pid);
    }
    fixture.folder.make_folder("self");
    fixture.folder.write_file("uptime", "1 1");
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), (strings{"1/stat", "2/stat", "9/stat", "31/stat", "100/stat", "4000/stat"}));
    ASSERT_EQ(seen.sample_count(), 6u);
    EXPECT_EQ(seen.sample(5)->pid, 4000);
}

TEST(stream_process_look, remembers_what_the_table_needs) {
    proc_fixture fixture;
    fixture.add(42, "a) (b");
    fixture.add_file(42, "status", "Name:\tx\nUid:\t0\t33\t0\t0\n");
    fixture.add_file(42, "cmdline", std::string("/bin/app\0-x\0two words\0\0", 23));
    fixture.add_link(42, "fd/0", "/dev/null");
    fixture.add_link(42, "fd/17", "/dev/null");
    fixture.add(43);
    look_result seen = look_at(fixture);
    ASSERT_EQ(seen.sample_count(), 2u);
    const process_sample* sample = seen.sample(0);
    EXPECT_EQ(sample->pid, 42);
    EXPECT_STREQ(sample->stat.name, "a) (b");
    EXPECT_EQ(sample->stat.cpu_ticks, 300u);
    EXPECT_EQ(sample->stat.start_ticks, 4000u);
    EXPECT_EQ(sample->uid, 33u);
    EXPECT_EQ(sample->descriptors, 2);
    EXPECT_EQ(seen.command(0), "/bin/app -x two words");
    EXPECT_EQ(seen.command(1), "[app]") << "without a command line";
    EXPECT_EQ(seen.sample(1)->uid, static_cast<uid_t>(-1));
    EXPECT_EQ(seen.sample(1)->descriptors, 0);
}

TEST(stream_process_look, long_command_lines_are_remembered_in_part) {
    proc_fixture fixture;
    fixture.add(42);
    fixture.add_file(42, "cmdline", std::string(5000, 'c'));
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.command(0), std::string(200, 'c'));
    EXPECT_EQ(seen.data("42/cmdline"), std::string(5000, 'c'));
}

TEST(stream_process_look, cuts_files_at_the_bound) {
    proc_fixture fixture;
    fixture.add(42);
    const std::string maps = noise(member_read_bound + 1);
    fixture.add_file(42, "maps", maps);
    EXPECT_TRUE(look_at(fixture).data("42/maps") == maps.substr(0, member_read_bound));
}

TEST(stream_process_look, empty_files_have_no_member) {
    proc_fixture fixture;
    fixture.add(42);
    fixture.add_file(42, "cmdline", "");
    fixture.add_file(42, "maps", "");
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), strings{"42/stat"});
    EXPECT_EQ(seen.notes(), "");
}

TEST(stream_process_look, vanished_process_is_one_note) {
    proc_fixture fixture;
    fixture.add(41);
    fixture.folder.make_folder("42");  // as the folder of a process that has been reaped
    fixture.add(43);
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), (strings{"41/stat", "43/stat"}));
    EXPECT_EQ(seen.notes(), error_line("/42", ESRCH));
    EXPECT_EQ(seen.sample_count(), 2u);
}

// The look waits at a FIFO until the process is gone.
TEST(stream_process_look, process_that_vanishes_between_reads_keeps_its_stored_members) {
    struct {
        const char* at;
        strings stored;
    } const cases[] = {
        {"status", {"42/stat"}},
        {"cgroup", {"42/stat"}},
        {"task/42/stat", {"42/stat"}},
        {"task/42/wchan", {"42/stat", "42/task/42/stat"}},
        {"cmdline", {"42/stat", "42/task/42/stat", "42/links"}},
    };
    for (const auto& step : cases) {
        proc_fixture fixture;
        fixture.add(42);
        fixture.add_file(42, "task/42/stat", "thread");
        fixture.add_link(42, "fd/0", "/dev/null");
        const std::string fifo = fixture.path(42, step.at);
        (void)unlink(fifo.c_str());
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        std::thread remover([&] {
            unique_fd writer(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));  // waits for the reader
            std::filesystem::remove_all(fixture.folder.path("42"));
        });
        look_result seen = look_at(fixture);
        remover.join();
        EXPECT_EQ(seen.names(), step.stored) << step.at;
        EXPECT_EQ(seen.notes(), error_line("/42", ESRCH)) << step.at;
        EXPECT_EQ(seen.sample_count(), step.at == std::string("cmdline") ? 1u : 0u);
    }
}

// As above; then another process gets the pid.
TEST(stream_process_look, does_not_mix_two_processes_with_one_pid) {
    proc_fixture fixture;
    fixture.add(42, "old");
    const std::string fifo = fixture.path(42, "status");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::thread replacer([&] {
        unique_fd writer(open(fifo.c_str(), O_WRONLY | O_CLOEXEC));
        std::filesystem::remove_all(fixture.folder.path("42"));
        fixture.add(42, "new");
        for (const char* name : {"wchan", "cmdline", "maps"}) {
            fixture.add_file(42, name, "new");
        }
        EXPECT_EQ(write(writer.get(), "old", 3), 3);
    });
    look_result seen = look_at(fixture);
    replacer.join();
    EXPECT_EQ(seen.names(), (strings{"42/stat", "42/status"}));
    EXPECT_EQ(seen.data("42/status"), "old");
    EXPECT_EQ(seen.notes(), error_line("/42", ESRCH));
}

TEST(stream_process_look, thread_that_vanished_is_skipped) {
    proc_fixture fixture;
    fixture.add(42);
    fixture.folder.make_folder("42/task/42");
    fixture.add_file(42, "task/43/stat", "thread");
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), (strings{"42/stat", "42/task/43/stat"}));
    EXPECT_EQ(seen.notes(), "");
    EXPECT_EQ(seen.sample_count(), 1u);
}

TEST(stream_process_look, notes_files_that_cannot_be_read) {
    proc_fixture fixture;
    fixture.add(42);
    fixture.folder.make_folder("42/stack");          // EISDIR
    fixture.add_link(42, "syscall", "syscall");      // ELOOP
    fixture.add_file(42, "exe", "this is no link");  // EINVAL
    fixture.add_file(42, "maps", "the rest");
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), (strings{"42/stat", "42/maps"}));
    EXPECT_EQ(seen.notes(), error_line("/42/syscall", ELOOP) + error_line("/42/stack", EISDIR) +
                                error_line("/42/links", EINVAL));
    EXPECT_EQ(seen.sample_count(), 1u);
}

TEST(stream_process_look, process_with_a_strange_stat_file_is_not_in_the_table) {
    proc_fixture fixture;
    fixture.add(42);
    fixture.add_file(42, "stat", "nonsense");
    fixture.add_file(42, "maps", "maps");
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names(), (strings{"42/stat", "42/maps"}));
    EXPECT_EQ(seen.sample_count(), 0u);
}

TEST(stream_process_look, stores_1024_processes) {
    proc_fixture fixture;
    for (int pid = 1; pid <= process_look_limit; pid++) {
        fixture.folder.make_folder(std::to_string(pid));
    }
    std::string all;
    for (int pid = 1; pid <= process_look_limit; pid++) {
        all += error_line("/" + std::to_string(pid), ESRCH);
    }
    EXPECT_TRUE(look_at(fixture).notes() == all);
    fixture.folder.make_folder("5000");
    const std::string notes = look_at(fixture).notes();
    EXPECT_EQ(notes.substr(0, notes.find('\n') + 1), error_line("", E2BIG));
    EXPECT_EQ(std::count(notes.begin(), notes.end(), '\n'), process_look_limit + 1);
}

TEST(stream_process_look, stores_64_threads) {
    proc_fixture fixture;
    fixture.add(42);
    for (int tid = 42; tid < 42 + process_thread_limit; tid++) {
        fixture.add_file(42, "task/" + std::to_string(tid) + "/wchan", "w");
    }
    look_result seen = look_at(fixture);
    EXPECT_EQ(seen.names().size(), 1u + process_thread_limit);
    EXPECT_EQ(seen.notes(), "");
    fixture.add_file(42, "task/5000/wchan", "w");
    seen = look_at(fixture);
    EXPECT_EQ(seen.names().size(), 1u + process_thread_limit);
    EXPECT_EQ(seen.notes(), error_line("/42/task", E2BIG));
}

TEST(stream_process_look, names_of_the_largest_numbers_fit) {
    proc_fixture fixture;
    fixture.add(4194304);
    fixture.add_file(4194304, "task/4194304/status", "s");
    EXPECT_EQ(look_at(fixture).names(), (strings{"4194304/stat", "4194304/task/4194304/status"}));
}

TEST(stream_process_look, notes_that_there_is_no_proc) {
    temp_dir folder;
    look_result seen = look_at(folder.path("none"));
    EXPECT_EQ(seen.names(), strings{});
    EXPECT_EQ(seen.notes(), error_line("", ENOENT));
    EXPECT_EQ(seen.looks.error, ENOENT);
}

TEST(stream_process_look, descriptors_that_run_out_are_one_note_for_each_process) {
    proc_fixture fixture;
    fixture.add(42);
    fixture.add_file(42, "maps", "maps");
    fixture.add(43);
    const int before = count_open_fds();
    auto with_few = [&](size_t left) {
        return look_at(fixture.folder.path(), [left](const std::function<void()>& look) {
            few_fds_left few(left);
            look();
        });
    };
    look_result none = with_few(0);
    EXPECT_EQ(none.notes(), error_line("", EMFILE));
    EXPECT_EQ(none.looks.error, EMFILE);
    look_result one = with_few(1);
    EXPECT_EQ(one.notes(), error_line("/42", EMFILE) + error_line("/43", EMFILE));
    EXPECT_EQ(one.names(), strings{});
    look_result two = with_few(2);
    EXPECT_EQ(two.notes(), "");
    EXPECT_EQ(two.names(), (strings{"42/stat", "42/maps", "43/stat"}));
    EXPECT_EQ(count_open_fds(), before);
}

TEST(stream_process_look, notes_that_memory_ran_out) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    proc_fixture fixture;
    fixture.add(42);
    look_result seen = look_at(fixture.folder.path(), [](const std::function<void()>& look) {
        scoped_memory_shortage none;
        look();
    });
    EXPECT_EQ(seen.names(), strings{});
    EXPECT_EQ(seen.notes(), error_line("", ENOMEM));
    EXPECT_EQ(seen.looks.error, ENOMEM);
}

TEST(stream_process_look, ends_if_the_reader_is_gone) {
    proc_fixture fixture;
    fixture.add(42);
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    tar_handle* t = tar_new(full.get(), nullptr);
    process_looks looks;
    const std::string root = fixture.folder.path();
    looks.root = root.c_str();
    EXPECT_EQ(stream_process_look(t, &looks), 1);
    EXPECT_EQ(t->error, ENOSPC);
    tar_abandon(t);
}

namespace {

// A child that does what it is told: 'o' opens seven descriptors, 's' spins until it has used another 100 ms,
// the end of its input ends it. It answers with a byte.
class told_child {
public:
    told_child() {
        pid_ = fork_child([this] {
            orders_.in.reset();
            for (char order; read(orders_.out.get(), &order, 1) == 1;) {
                for (int i = 0; order == 'o' && i < 7; i++) {
                    (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
                }
                const clock_t start = clock();
                while (order == 's' && clock() - start < CLOCKS_PER_SEC / 10) {
                }
                (void)!write(answers_.in.get(), &order, 1);
            }
            return 0;
        });
    }
    void tell(char order) {
        char answer = 0;
        EXPECT_EQ(write(orders_.in.get(), &order, 1), 1);
        EXPECT_EQ(read(answers_.out.get(), &answer, 1), 1);
    }
    void end() {
        orders_.in.reset();
        (void)wait_status(pid_);
    }
    pid_t pid() const { return pid_; }

private:
    test_pipe orders_;
    test_pipe answers_;
    pid_t pid_;
};

// In a private world: a child that spins, one that leaks descriptors, one that ends and one that comes.
// Prints their pids to `pids_fd`.
int look_at_children(tar_handle* t, int pids_fd) {
    manifest list;
    manifest_begin(&list, t);
    process_looks looks;
    told_child leaker;  // each child has the pipes of those before it, so the last one has to end first
    told_child spinner;
    told_child ender;
    spinner.tell('s');
    int result = stream_process_look(t, &looks);
    spinner.tell('s');
    leaker.tell('o');
    ender.end();
    told_child comer;
    comer.tell('o');
    result += stream_process_look(t, &looks);
    result += stream_process_table(t, &looks);
    manifest_store(&list, t);
    (void)tar_close(t);  // of this process: the parent's handle does not know of these members
    dprintf(pids_fd, "%d %d %d %d", spinner.pid(), leaker.pid(), ender.pid(), comer.pid());
    comer.end();
    spinner.end();
    leaker.end();
    return result;
}

// The line of `pid` in the table, as words.
strings line_of(const std::string& table, int pid) {
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream stream(line);
        strings words;
        for (std::string word; stream >> word;) {
            words.push_back(word);
        }
        if (!words.empty() && words[0] == std::to_string(pid)) {
            words.resize(std::max<size_t>(words.size(), 13));
            return words;
        }
    }
    ADD_FAILURE() << "no line of " << pid << " in\n" << table;
    return strings(13);
}

}  // namespace

TEST(stream_process_look, real_processes_are_told_apart_in_the_table) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    test_archive archive;
    unique_fd pids_file = memory_file();
    EXPECT_EQ(run_in_private_world([&] { return look_at_children(archive.handle(), pids_file.get()); }), 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_NE(listing.find("processes.txt"), nullptr);
    const std::string& table = listing.find("processes.txt")->data;
    int spinner = 0;
    int leaker = 0;
    int ender = 0;
    int comer = 0;
    std::istringstream(content_of(pids_file.get())) >> spinner >> leaker >> ender >> comer;
    EXPECT_NE(line_of(table, spinner)[6], "0.0%");
    EXPECT_EQ(line_of(table, spinner)[10], "+0");
    EXPECT_EQ(line_of(table, leaker)[10], "+7");
    EXPECT_EQ(line_of(table, ender)[3], "gone");
    EXPECT_EQ(line_of(table, comer)[10], "new");
    EXPECT_EQ(line_of(table, 1)[1], "0");
    EXPECT_EQ(listing.find("manifest.txt")->data.find(" error "), std::string::npos)
        << listing.find("manifest.txt")->data;
}

TEST(stream_process_look, real_process_has_all_members) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    test_archive archive;
    unique_fd pid_file = memory_file();
    EXPECT_EQ(run_in_private_world([&] {
                  dprintf(pid_file.get(), "%d", getpid());
                  process_looks looks;
                  const int before = count_open_fds();
                  const int result = stream_process_look(archive.handle(), &looks);
                  tar_close(archive.handle());  // writes the last padding, of which only this process knows
                  return count_open_fds() == before ? result : 9;
              }),
              0);
    tar_listing listing = tar_read(archive.bytes());
    EXPECT_EQ(listing.trouble, "");
    // The process looks at itself. Its pid is not always 2: a sanitizer's thread may have taken that number.
    const std::string pid = content_of(pid_file.get());
    const std::string folder = "/" + pid + "/";
    std::string own;
    for (const tar_entry& entry : listing.entries) {
        const size_t at = entry.name.find(folder);
        own += at == 25 ? entry.name.substr(at + folder.size()) + " " : "";
    }
    const strings names = {
        "stat ",  "status ",  "limits ", "task/" + pid + "/stat ", "task/" + pid + "/status ",
        "links ", "cmdline ", "maps "};
    for (const std::string& name : names) {
        EXPECT_NE(own.find(name), std::string::npos) << name << "in " << own;
    }
    EXPECT_EQ(own.find("environ"), std::string::npos);
}
