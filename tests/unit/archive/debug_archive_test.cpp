#include "archive/debug_archive.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

constexpr int no_pid = -1;

const std::string line_off = "Set service watchdogs state: no\n";
const std::string line_on = "Set service watchdogs state: yes\n";

// Files that a development machine lacks. The scripts leave a mark when they run.
bool install_device() {
    return install_file("/var/run/dbg-cgi/dbg-monitor.txt", "status of the monitor\n") &&
           install_file("/etc/ws/onvif/media/media.conf", "[media]\n") &&
           install_script("/usr/sbin/gen_serverreport.sh", "echo report; : > /tmp/report-ran") &&
           install_script("/usr/sbin/oopslog", "echo oops; : > /tmp/oopslog-ran");
}

struct outcome {
    int exit_code = -1;
    std::string archive;
    std::string out;
    std::string err;

    tar_listing listing() const { return tar_read(archive); }
};

// Runs `work` on a descriptor for the archive, in a private world with the files of a device.
outcome run_on_device(const std::function<int(int fd)>& work) {
    unique_fd archive = memory_file();
    unique_fd out = memory_file();
    unique_fd err = memory_file();
    outcome seen;
    seen.exit_code = run_in_private_world([&] {
        ignore_broken_pipes();
        redirect_outputs(out.get(), err.get());
        return install_device() ? work(archive.get()) : 3;
    });
    seen.archive = content_of(archive.get());
    seen.out = content_of(out.get());
    seen.err = content_of(err.get());
    return seen;
}

// What is wrong with a process after an archive, as its exit code. No other test here uses these codes.
enum aftermath : int {
    all_is_well = 0,
    time_limit_is_left = 20,
    descriptors_are_left,
    children_are_left,
    archive_is_not_whole
};

aftermath aftermath_of_an_archive(int fd) {
    std::set<int> before = open_fds();
    alarm(1000);
    if (stream_debug_archive(fd, no_pid) != 0) {
        return archive_is_not_whole;
    }
    if (alarm(0) != 0) {
        return time_limit_is_left;
    }
    if (open_fds() != before) {
        return descriptors_are_left;
    }
    return has_no_children() ? all_is_well : children_are_left;
}

// An archive takes seconds, so tests that only examine one share this one. Its exit code is an `aftermath`.
const outcome& one_archive() {
    static const outcome seen = run_on_device(aftermath_of_an_archive);
    return seen;
}

std::string top_of(const std::string& name) {
    return name.substr(0, name.find('/') + 1);
}

// The kinds of members in their order, without repetitions: names below the top directory, those of a
// snapshot up to their first dot or slash.
std::vector<std::string> kinds(const tar_listing& listing) {
    std::vector<std::string> order;
    for (const tar_entry& entry : listing.entries) {
        std::string kind = entry.name.substr(top_of(entry.name).size());
        if (kind.compare(0, 5, "proc.") == 0 || kind.compare(0, 5, "proc/") == 0) {
            kind.resize(5);
        }
        if (order.empty() || order.back() != kind) {
            order.push_back(kind);
        }
    }
    return order;
}

// Returns true if an archive of this machine has its kernel core.
bool has_small_kcore() {
    struct stat status;
    return stat("/proc/kcore", &status) == 0 && status.st_size > 0 && status.st_size <= 10485760;
}

std::vector<std::string> expected_kinds() {
    std::vector<std::string> order = {"dbg-monitor.txt", "media.conf",       "proc.",  "proc/", "strace.log",
                                      "netdump.cap",     "serverreport.txt", "oopslog"};
    if (has_small_kcore()) {
        order.push_back("kcore");
    }
    order.insert(order.end(), {"proc.", "proc/"});
    return order;
}

// The members that are stored without memory: programs have their own, and the capture becomes zeros.
std::vector<std::string> members_without_a_buffer() {
    std::vector<std::string> order = {"netdump.cap", "serverreport.txt", "oopslog"};
    if (has_small_kcore()) {
        order.push_back("kcore");
    }
    return order;
}

size_t count_of(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size())) {
        count++;
    }
    return count;
}

// Reads to the end of the member "netdump.cap". Returns false at an earlier end of file.
bool read_until_capture(int fd) {
    std::string stream;
    std::string block(65536, '\0');
    for (;;) {
        ssize_t got = read(fd, block.data(), block.size());
        if (got <= 0) {
            return false;
        }
        stream.append(block, 0, static_cast<size_t>(got));
        size_t name = stream.find("/netdump.cap");
        size_t header = name / 512 * 512;
        if (name != std::string::npos && stream.size() >= header + 512 + 512000) {
            return true;
        }
    }
}

}  // namespace

TEST(stream_debug_archive, members_have_a_fixed_order) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    const outcome& seen = one_archive();
    ASSERT_EQ(seen.exit_code, 0);
    tar_listing listing = seen.listing();
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(kinds(listing), expected_kinds());
    ASSERT_FALSE(listing.entries.empty());
    std::string top = top_of(listing.entries[0].name);
    for (const tar_entry& entry : listing.entries) {
        EXPECT_EQ(top_of(entry.name), top);
    }
}

TEST(stream_debug_archive, members_hold_the_files_of_the_device) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    const outcome& seen = one_archive();
    ASSERT_EQ(seen.exit_code, 0);
    tar_listing listing = seen.listing();
    ASSERT_FALSE(listing.entries.empty());
    std::string top = top_of(listing.entries[0].name);
    auto data = [&](const char* name) {
        const tar_entry* entry = listing.find(top + name);
        return entry ? entry->data : "<missing>";
    };
    EXPECT_EQ(data("dbg-monitor.txt"), "status of the monitor\n");
    EXPECT_EQ(data("media.conf"), "[media]\n");
    EXPECT_EQ(data("serverreport.txt"), "report\n");
    EXPECT_EQ(data("oopslog"), "oops\n");
    EXPECT_EQ(data("strace.log").size(), 204800u);
    EXPECT_EQ(data("netdump.cap").size(), 512000u);
    EXPECT_EQ(data("proc/sys/kernel/ostype"), "Linux\n");
}

TEST(stream_debug_archive, second_snapshot_has_the_later_time) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    const outcome& seen = one_archive();
    std::vector<std::string> snapshots;
    for (const std::string& name : seen.listing().names()) {
        std::string inner = name.substr(top_of(name).size());
        if (inner.size() > 8 && inner.compare(0, 5, "proc.") == 0 &&
            inner.compare(inner.size() - 8, 8, "/version") == 0) {
            snapshots.push_back(inner);
        }
    }
    ASSERT_EQ(snapshots.size(), 2u);
    EXPECT_LE(snapshots[0], snapshots[1]);
    std::vector<std::string> names = seen.listing().names();
    auto is_ostype = [](const std::string& name) {
        return name.find("/proc/sys/kernel/ostype") != std::string::npos;
    };
    EXPECT_EQ(std::count_if(names.begin(), names.end(), is_ostype), 2);
}

TEST(stream_debug_archive, top_directory_has_the_time_and_the_number_of_the_archive) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    constexpr size_t archives = effort(3, 2);
    outcome seen = run_on_device([](int fd) {
        for (size_t i = 0; i < archives; i++) {
            stream_debug_archive(fd, no_pid);
        }
        return 0;
    });
    ASSERT_EQ(seen.exit_code, 0);
    std::vector<std::string> order;
    for (const std::string& name : seen.listing().names()) {
        if (order.empty() || order.back() != top_of(name)) {
            order.push_back(top_of(name));
        }
    }
    ASSERT_EQ(order.size(), archives);
    for (size_t i = 0; i < archives; i++) {
        EXPECT_TRUE(has_shape(order[i], "debug-99999999-999999-c" + std::to_string(i) + "/")) << order[i];
    }
}

TEST(stream_debug_archive, missing_files_have_no_member) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = run_on_device([](int fd) {
        unlink("/etc/ws/onvif/media/media.conf");
        unlink("/var/run/dbg-cgi/dbg-monitor.txt");
        stream_debug_archive(fd, no_pid);
        return 0;
    });
    ASSERT_EQ(seen.exit_code, 0);
    std::vector<std::string> expected = expected_kinds();
    expected.erase(expected.begin(), expected.begin() + 2);
    EXPECT_EQ(kinds(seen.listing()), expected);
    EXPECT_EQ(seen.listing().trouble, "");
    EXPECT_EQ(count_of(seen.err, "/etc/ws/onvif/media/media.conf: "), 1u) << seen.err;
    EXPECT_EQ(count_of(seen.err, "/var/run/dbg-cgi/dbg-monitor.txt: "), 1u) << seen.err;
}

TEST(stream_debug_archive, watchdogs_are_off_before_the_first_byte_and_on_after_the_last) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    // Messages and archive share one file here, which shows their order.
    outcome seen = run_on_device([](int) {
        stream_debug_archive(STDOUT_FILENO, no_pid);
        return 0;
    });
    ASSERT_EQ(seen.exit_code, 0);
    ASSERT_GT(seen.out.size(), line_off.size() + line_on.size());
    EXPECT_EQ(seen.out.substr(0, line_off.size()), line_off);
    EXPECT_EQ(seen.out.substr(seen.out.size() - line_on.size()), line_on);
    std::string between =
        seen.out.substr(line_off.size(), seen.out.size() - line_off.size() - line_on.size());
    tar_listing listing = tar_read(between);
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(kinds(listing), expected_kinds());
}

TEST(stream_debug_archive, watchdogs_are_switched_once_off_and_once_on_if_that_succeeds) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    const outcome& seen = one_archive();
    EXPECT_EQ(seen.out, line_off + line_on);
    EXPECT_EQ(seen.err.find("Error setting service watchdogs"), std::string::npos) << seen.err;
}

TEST(stream_debug_archive, switching_the_watchdogs_on_is_repeated_until_it_succeeds) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = run_on_device([](int fd) {
        setenv("HOLLISK_FAIL_COUNT", "4", 1);
        stream_debug_archive(fd, no_pid);
        return 0;
    });
    ASSERT_EQ(seen.exit_code, 0);
    EXPECT_EQ(seen.out, line_off + line_on + line_on + line_on + line_on);
    EXPECT_EQ(count_of(seen.err, "Error setting service watchdogs state 'no': "), 1u);
    EXPECT_EQ(count_of(seen.err, "Error setting service watchdogs state 'yes': "), 3u);
    EXPECT_EQ(kinds(seen.listing()), expected_kinds()) << "a failed switch does not stop the archive";
}

TEST(stream_debug_archive, time_limit_is_cleared_at_the_end) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(one_archive().exit_code, all_is_well);
}

TEST(stream_debug_archive, time_limit_is_300_seconds) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    // A client that reads nothing blocks the archive in one of its first members. The test then reads the
    // timer.
    outcome seen = run_on_device([](int) {
        test_pipe client;
        std::string junk(1 << 20, 'x');
        set_nonblocking(client.in.get());
        while (write(client.in.get(), junk.data(), junk.size()) > 0) {
        }
        fcntl(client.in.get(), F_SETFL, O_WRONLY);
        unsigned remaining = 0;
        std::thread watcher([&] {
            eventually([&] { return (remaining = alarm(0)) > 0; });
            client.out.reset();
        });
        stream_debug_archive(client.in.get(), no_pid);
        watcher.join();
        return remaining > 290 && remaining <= 300 ? 0 : 1;
    });
    EXPECT_EQ(seen.exit_code, 0);
}

TEST(stream_debug_archive, leaves_no_descriptors_and_no_children) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    EXPECT_EQ(one_archive().exit_code, all_is_well);
}

TEST(stream_debug_archive, ends_if_the_client_has_disconnected) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = run_on_device([](int) {
        test_pipe client;
        client.out.reset();
        std::set<int> before = open_fds();
        if (stream_debug_archive(client.in.get(), no_pid) != EPIPE) {
            return 2;
        }
        bool later_members = access("/tmp/report-ran", F_OK) == 0 || access("/tmp/oopslog-ran", F_OK) == 0;
        return !later_members && alarm(0) == 0 && open_fds() == before ? 0 : 1;
    });
    EXPECT_EQ(seen.exit_code, 0);
    EXPECT_EQ(seen.out, line_off + line_on);
}

TEST(stream_debug_archive, ends_at_the_next_member_if_the_client_disconnects_after_the_capture) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = run_on_device([](int) {
        // More than a pipe holds: the report cannot be copied to its end.
        if (!install_script("/usr/sbin/gen_serverreport.sh",
                            "head -c 4000000 /dev/zero; : > /tmp/report-ran")) {
            return 3;
        }
        test_pipe pipe;
        bool capture_came = false;
        std::thread client([&] {
            capture_came = read_until_capture(pipe.out.get());
            pipe.out.reset();
        });
        stream_debug_archive(pipe.in.get(), no_pid);
        client.join();
        bool report_ran = access("/tmp/report-ran", F_OK) == 0;
        bool oopslog_ran = access("/tmp/oopslog-ran", F_OK) == 0;
        return capture_came && report_ran && !oopslog_ran && alarm(0) == 0 ? 0 : 1;
    });
    EXPECT_EQ(seen.exit_code, 0);
    EXPECT_EQ(seen.out, line_off + line_on);
}

TEST(stream_debug_archive, skips_members_if_memory_runs_out) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    SKIP_WITHOUT_MEMORY_LIMIT();
    outcome seen = run_on_device([](int fd) {
        constexpr size_t less_than_a_member = 65536;
        scoped_memory_shortage shortage(less_than_a_member);
        return stream_debug_archive(fd, no_pid);
    });
    EXPECT_EQ(seen.exit_code, 0) << seen.err;
    EXPECT_EQ(seen.listing().trouble, "");
    EXPECT_EQ(kinds(seen.listing()), members_without_a_buffer());
    EXPECT_EQ(seen.out, line_off + line_on);
}

TEST(stream_debug_archive, skips_members_if_descriptors_run_out) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = run_on_device([](int fd) {
        const int highest = dup(fd);
        close(highest);
        const rlimit all_in_use = {static_cast<rlim_t>(highest), static_cast<rlim_t>(highest)};
        setrlimit(RLIMIT_NOFILE, &all_in_use);
        return stream_debug_archive(fd, no_pid);
    });
    EXPECT_EQ(seen.exit_code, 0) << seen.err;
    EXPECT_EQ(seen.listing().trouble, "");
    EXPECT_EQ(kinds(seen.listing()), (std::vector<std::string>{"strace.log", "netdump.cap"}));
}

TEST(stream_debug_archive, returns_ENOMEM_if_the_archive_cannot_begin) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    SKIP_WITHOUT_MEMORY_LIMIT();
    outcome seen = run_on_device([](int fd) {
        scoped_memory_shortage shortage;
        return stream_debug_archive(fd, no_pid) == ENOMEM ? 0 : 1;
    });
    EXPECT_EQ(seen.exit_code, 0);
    EXPECT_EQ(seen.archive, "");
    EXPECT_EQ(seen.out, line_off + line_on);
}

TEST(stream_debug_archive, returns_ENOSPC_if_the_disk_is_full) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    outcome seen = run_on_device([](int) {
        unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
        const bool is_error = stream_debug_archive(full.get(), no_pid) == ENOSPC;
        return is_error && access("/tmp/report-ran", F_OK) != 0 ? 0 : 1;
    });
    EXPECT_EQ(seen.exit_code, 0);
    EXPECT_EQ(seen.out, line_off + line_on);
}

TEST(stream_debug_archive, two_archives_at_once_are_both_whole) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd second = memory_file();
    outcome seen = run_on_device([&second](int fd) {
        std::thread other([&second] { stream_debug_archive(second.get(), no_pid); });
        stream_debug_archive(fd, no_pid);
        other.join();
        return 0;
    });
    ASSERT_EQ(seen.exit_code, 0);
    std::set<std::string> numbers;
    for (const std::string& stream : {seen.archive, content_of(second.get())}) {
        tar_listing listing = tar_read(stream);
        EXPECT_EQ(listing.trouble, "");
        EXPECT_EQ(kinds(listing), expected_kinds());
        ASSERT_FALSE(listing.entries.empty());
        std::string top = top_of(listing.entries[0].name);
        numbers.insert(top.substr(top.rfind('-')));
    }
    EXPECT_EQ(numbers, (std::set<std::string>{"-c0/", "-c1/"}));
}
