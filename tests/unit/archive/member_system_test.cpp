#include "archive/member_system.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/utsname.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "tests/unit/archive/listed_archive.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr char clock_source[] = "sys/devices/system/clocksource/clocksource0/current_clocksource";

// Hangs for a while, longer than the patience with a mount.
int slow_statfs(const char* folder, struct statfs* usage) {
    if (strcmp(folder, "/slow") == 0) {
        sleep(2);
    }
    return statfs("/", usage);
}

class system_member : public testing::Test {
protected:
    system_member() {
        root_.write_file("proc/cmdline", "console=ttyS0 root=/dev/mtdblock3\n");
        root_.write_file("proc/loadavg", "0.43 2.00 4.76 1/210 12345\n");
        root_.write_file("proc/meminfo", "MemTotal:  126976 kB\nMemFree:   20480 kB\n");
        root_.write_file("proc/mounts", "proc /proc proc rw 0 0\n");
        root_.write_file("proc/self/cmdline", std::string("debugar.cgi\0-d\0", 15));
        root_.write_file(clock_source, "MIPS\n");
    }

    tar_listing stored(int (*statfs_call)(const char*, struct statfs*) = nullptr) {
        listed_archive archive;
        EXPECT_EQ(stream_system_from(archive.handle(), root_.path().c_str(), statfs_call), 0);
        tar_listing listing = archive.finish();
        EXPECT_EQ(listing.trouble, "");
        return listing;
    }
    static std::string text_of(const tar_listing& listing) {
        const tar_entry* found = listing.find("system.txt");
        EXPECT_NE(found, nullptr);
        return found ? found->data : "";
    }
    void remove(const std::string& file) { EXPECT_EQ(unlink(root_.path(file).c_str()), 0); }

    temp_dir root_;
};

// The titles of the sections, in order.
std::vector<std::string> titles(const std::string& text) {
    std::vector<std::string> found;
    for (size_t at = text.starts_with('[') ? 0 : text.find("\n["); at != std::string::npos;
         at = text.find("\n[", at + 1)) {
        const size_t begin = text.find('[', at);
        found.push_back(text.substr(begin, text.find('\n', begin) - begin));
    }
    return found;
}

// The lines of a section, without its title and the empty line that ends it.
std::string section(const std::string& text, const std::string& title) {
    const size_t at = ("\n" + text).find("\n[" + title + "]\n");
    if (at == std::string::npos) {
        return "no section";
    }
    const std::string rest = text.substr(at + title.size() + 3);
    const size_t end = ("\n" + rest).find("\n\n[");
    return rest.substr(0, end);
}

// The keys of a section's facts.
std::vector<std::string> keys(std::string lines) {
    std::vector<std::string> found;
    for (size_t end; (end = lines.find('\n')) != std::string::npos; lines.erase(0, end + 1)) {
        found.push_back(lines.substr(0, lines.find(": ")));
    }
    return found;
}

using names = std::vector<std::string>;

}  // namespace

TEST_F(system_member, has_its_sections_in_order) {
    const tar_listing listing = stored();
    EXPECT_EQ(listing.names(), (names{"system.txt", "manifest.txt"}));
    EXPECT_EQ(titles(text_of(listing)),
              (names{"[system]", "[memory]", "[file systems]", "[interfaces]", "[routes]", "[neighbours]"}));
    EXPECT_EQ(manifest_errors(listing), "");
    EXPECT_TRUE(text_of(listing).ends_with('\n'));
}

TEST_F(system_member, has_facts_about_the_system) {
    const std::string facts = section(text_of(stored()), "system");
    EXPECT_EQ(keys(facts), (names{"host", "kernel", "kernel command line", "uptime", "load", "local time",
                                  "UTC", "clock source", "clock", "zarvo", "options"}));
    utsname kernel;
    ASSERT_EQ(uname(&kernel), 0);
    for (const std::string& line :
         {"kernel: " + std::string(kernel.sysname) + " " + kernel.release + " " + kernel.version + " ",
          std::string("\nkernel command line: console=ttyS0 root=/dev/mtdblock3\n"),
          std::string("\nload: 0.43 2.00 4.76 1/210 12345\n"), std::string("\nclock source: MIPS\n"),
          std::string("\nzarvo: 0."), std::string("\noptions: debugar.cgi -d \n")}) {
        EXPECT_NE(facts.find(line), std::string::npos) << line << facts;
    }
}

TEST_F(system_member, has_the_memory_as_the_kernel_lists_it) {
    EXPECT_EQ(section(text_of(stored()), "memory"), "MemTotal:  126976 kB\nMemFree:   20480 kB\n");
}

TEST_F(system_member, has_the_file_systems) {
    EXPECT_EQ(section(text_of(stored()), "file systems"),
              "proc /proc proc rw total_kib 0 used_kib 0 available_kib 0 inodes_free 0\n");
}

TEST_F(system_member, does_not_wait_for_a_file_system_that_hangs) {
    root_.write_file("proc/mounts", "h /slow nfs rw 0 0\n");
    const tar_listing listing = stored(slow_statfs);
    EXPECT_EQ(section(text_of(listing), "file systems"), "h /slow nfs rw not answering\n");
    EXPECT_EQ(manifest_errors(listing), "");
}

TEST_F(system_member, lists_missing_files_as_errors) {
    remove("proc/cmdline");
    remove("proc/meminfo");
    remove("proc/mounts");
    remove(clock_source);
    const tar_listing listing = stored();
    const std::string text = text_of(listing);
    EXPECT_EQ(section(text, "errors"),
              "/proc/cmdline: No such file or directory\n"
              "/" +
                  std::string(clock_source) +
                  ": No such file or directory\n"
                  "/proc/meminfo: No such file or directory\n"
                  "/proc/mounts: No such file or directory\n");
    const std::string noted = "system.txt: No such file or directory\n";
    EXPECT_EQ(manifest_errors(listing), noted + noted + noted + noted);
    EXPECT_EQ(text.find("kernel command line"), std::string::npos);
    EXPECT_EQ(section(text, "memory"), "");
    EXPECT_EQ(titles(text).back(), "[errors]");
}

TEST_F(system_member, cannot_be_confused_by_the_options) {
    root_.write_file("proc/self/cmdline", "a\n[errors]\nb");
    EXPECT_EQ(titles(text_of(stored())).size(), 6u);
}

TEST_F(system_member, has_what_needs_no_descriptor_if_there_is_none) {
    listed_archive archive;
    {
        few_fds_left none(0);
        EXPECT_EQ(stream_system_from(archive.handle(), root_.path().c_str(), nullptr), 0);
    }
    const tar_listing listing = archive.finish();
    const std::string text = text_of(listing);
    EXPECT_EQ(keys(section(text, "system")),
              (names{"host", "kernel", "uptime", "local time", "UTC", "clock", "zarvo"}));
    const std::string errors = section(text, "errors");
    EXPECT_EQ(keys(errors),
              (names{"/proc/cmdline", "/proc/loadavg", "/" + std::string(clock_source), "/proc/self/cmdline",
                     "/proc/meminfo", "/proc/mounts", "interfaces", "addresses", "routes", "neighbours"}));
    EXPECT_NE(errors.find("routes: Too many open files\n"), std::string::npos) << errors;
    const std::string noted = manifest_errors(listing);
    EXPECT_EQ(std::count(noted.begin(), noted.end(), '\n'), 10);
}

TEST_F(system_member, has_at_most_half_a_text_of_file_systems) {
    std::string lines;
    for (int i = 0; i < 200; i++) {
        lines += "d /none ext4 " + std::string(1500, 'o') + " 0 0\n";
    }
    root_.write_file("proc/mounts", lines);
    const tar_listing half = stored();
    EXPECT_EQ(section(text_of(half), "errors"), "/proc/mounts: File too large\n");
    EXPECT_LT(text_of(half).size(), 160u << 10);
    EXPECT_EQ(manifest_errors(half), "system.txt: File too large\n");
}

TEST_F(system_member, has_no_interfaces_and_routes_in_an_empty_network) {
    tar_listing listing;
    bool made = false;
    std::thread([&] {
        made = unshare(CLONE_NEWNET) == 0;
        listing = stored();
    }).join();
    if (!made) {
        GTEST_SKIP() << "needs root and a network namespace";
    }
    const std::string text = text_of(listing);
    EXPECT_EQ(section(text, "interfaces").substr(0, 28), "lo index 1 state down mtu 65");
    EXPECT_EQ(section(text, "routes"), "");
    EXPECT_EQ(section(text, "neighbours"), "");
    EXPECT_EQ(manifest_errors(listing), "");
}

TEST_F(system_member, without_memory_is_noted) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    listed_archive archive;
    {
        scoped_memory_shortage nothing_left;
        EXPECT_EQ(stream_system_from(archive.handle(), root_.path().c_str(), nullptr), 0);
    }
    const tar_listing listing = archive.finish();
    EXPECT_EQ(listing.names(), names{"manifest.txt"});
    EXPECT_NE(manifest_errors(listing).find("system.txt: Cannot allocate memory\n"), std::string::npos);
}

TEST_F(system_member, closes_what_it_opens) {
    const std::set<int> before = open_fds();
    (void)stored();
    EXPECT_TRUE(eventually([&] { return open_fds() == before; }));
}

TEST_F(system_member, returns_1_if_the_archive_cannot_be_written) {
    ignore_broken_pipes();
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    EXPECT_EQ(stream_system_from(t, root_.path().c_str(), nullptr), 1);
    tar_abandon(t);
}

TEST(system_member_of_this_machine, describes_it) {
    listed_archive archive;
    EXPECT_EQ(stream_system(archive.handle()), 0);
    const tar_listing listing = archive.finish();
    const tar_entry* found = listing.find("system.txt");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(section(found->data, "memory").substr(0, 9), "MemTotal:");
    EXPECT_NE(section(found->data, "interfaces").find("lo index 1 state "), std::string::npos);
}
