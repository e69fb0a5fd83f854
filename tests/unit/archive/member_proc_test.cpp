#include "archive/member_proc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"
#include "tests/unit/support/temp_dir.h"

namespace {

const std::vector<std::string> snapshot_dirs = {
    "proc/sys/",
    "proc/sys/fs/",
    "proc/sys/kernel/",
    "proc/sys/kernel/random/",
    "proc/sys/net/bridge/",
    "proc/sys/net/core/",
    "proc/sys/net/ipv4/",
    "proc/sys/net/ipv4/conf/",
    "proc/sys/net/ipv4/neigh/",
    "proc/sys/net/ipv4/route/",
    "proc/sys/net/ipv6/",
    "proc/sys/net/ipv6/conf/",
    "proc/sys/net/ipv6/icmp/",
    "proc/sys/net/ipv6/neigh/",
    "proc/sys/net/ipv6/route/",
    "proc/sys/net/unix/",
    "proc/sys/vm/",
    "proc/driver/",
    "proc/net/",
    "proc/net/dev_snmp6/",
    "proc/net/ip6t_hashlimit/",
    "proc/net/ipt_hashlimit/",
    "proc/net/netfilter/",
    "proc/net/rpc/",
    "proc/net/stat/",
    "proc/net/vlan/",
};

std::string local_stamp(time_t when) {
    tm local = {};
    localtime_r(&when, &local);
    char text[64];
    strftime(text, sizeof text, "proc.%Y%m%d-%H%M%S/", &local);
    return text;
}

struct snapshot {
    int result = -1;
    std::string earliest;  // possible name of its directory
    std::string latest;
    std::string messages;  // on standard error
    tar_listing listing;

    std::string top() const {
        const std::string& first = listing.entries.at(0).name;
        return first.substr(0, first.find('/') + 1);
    }
};

constexpr const char* test_zone = "TST-9:30";

// Takes a snapshot in a private world, in another time zone than the machine's.
snapshot take_snapshot() {
    snapshot taken;
    test_archive archive;
    unique_fd err = memory_file();
    setenv("TZ", test_zone, 1);
    tzset();
    taken.earliest = local_stamp(time(nullptr));
    taken.result = run_in_private_world([&] {
        dup2(err.get(), STDERR_FILENO);
        int result = stream_proc(archive.handle(), archive.fd());
        tar_close(archive.handle());  // here, because this process counted the bytes
        return result;
    });
    taken.latest = local_stamp(time(nullptr));
    unsetenv("TZ");
    tzset();
    taken.messages = content_of(err.get());
    taken.listing = tar_read(archive.bytes());
    return taken;
}

std::string directory_of(const std::string& name) {
    return name.substr(0, name.rfind('/') + 1);
}

// A sparse file of `size` bytes.
std::string sparse_file(const temp_dir& folder, off_t size) {
    std::string path = folder.write_file("kcore", "");
    EXPECT_EQ(truncate(path.c_str(), size), 0);
    return path;
}

std::string small_sysfs_file() {
    for (const char* path : {"/sys/kernel/uevent_seqnum", "/sys/kernel/mm/transparent_hugepage/enabled",
                             "/sys/power/state", "/sys/kernel/fscaps"}) {
        unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
        struct stat status;
        if (file && fstat(file.get(), &status) == 0 && !content_of(file.get()).empty() &&
            status.st_size > static_cast<off_t>(content_of(file.get()).size())) {
            return path;
        }
    }
    return "";
}

void expect_nothing_stored(const std::string& path) {
    test_archive archive;
    int result = -1;
    EXPECT_EQ(
        capture_stderr([&] { result = stream_kcore_from(archive.handle(), archive.fd(), path.c_str()); }),
        "");
    EXPECT_EQ(result, 0);
    EXPECT_EQ(archive.bytes(), "");
}

}  // namespace

TEST(stream_proc, files_of_proc_itself_are_in_a_folder_named_after_the_local_time) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    snapshot taken = take_snapshot();
    EXPECT_EQ(taken.result, 0);
    ASSERT_FALSE(taken.listing.entries.empty());
    EXPECT_TRUE(has_shape(taken.top(), "proc.99999999-999999/")) << taken.top();
    EXPECT_LE(taken.earliest, taken.top());
    EXPECT_GE(taken.latest, taken.top());
    for (const char* name : {"version", "meminfo", "stat", "cpuinfo", "mounts"}) {
        EXPECT_NE(taken.listing.find(taken.top() + name), nullptr) << name;
    }
    unique_fd version(open("/proc/version", O_RDONLY | O_CLOEXEC));
    ASSERT_NE(taken.listing.find(taken.top() + "version"), nullptr);
    EXPECT_EQ(taken.listing.find(taken.top() + "version")->data, content_of(version.get()));
}

TEST(stream_proc, directories_follow_in_a_fixed_order_under_their_own_names) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    snapshot taken = take_snapshot();
    ASSERT_FALSE(taken.listing.entries.empty());
    // The directories of the members, that of proc itself first.
    std::vector<std::string> order = {taken.top()};
    order.insert(order.end(), snapshot_dirs.begin(), snapshot_dirs.end());
    size_t at = 0;
    std::set<std::string> seen;
    for (const tar_entry& entry : taken.listing.entries) {
        std::string directory = directory_of(entry.name);
        seen.insert(directory);
        while (at < order.size() && order[at] != directory) {
            at++;
        }
        ASSERT_LT(at, order.size()) << entry.name << " is out of order";
    }
    for (const char* always : {"proc/sys/fs/", "proc/sys/kernel/", "proc/sys/kernel/random/",
                               "proc/sys/net/core/", "proc/sys/net/unix/", "proc/sys/vm/", "proc/net/"}) {
        EXPECT_TRUE(seen.count(always)) << always;
    }
    ASSERT_NE(taken.listing.find("proc/sys/kernel/ostype"), nullptr);
    EXPECT_EQ(taken.listing.find("proc/sys/kernel/ostype")->data, "Linux\n");
}

TEST(stream_proc, stream_is_complete_and_its_members_are_bounded) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    snapshot taken = take_snapshot();
    EXPECT_EQ(taken.listing.trouble, "");
    for (const tar_entry& entry : taken.listing.entries) {
        EXPECT_GT(entry.size, 0u) << entry.name;
        EXPECT_LE(entry.size, 102400u) << entry.name;
    }
}

TEST(stream_proc, stores_the_first_102400_bytes_of_a_large_file) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd file(open("/proc/kallsyms", O_RDONLY | O_CLOEXEC));
    std::string symbols = file ? read_all(file.get()) : "";
    if (symbols.size() <= 102400) {
        GTEST_SKIP() << "this kernel has no large file in /proc";
    }
    snapshot taken = take_snapshot();
    const tar_entry* entry = taken.listing.find(taken.top() + "kallsyms");
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->size, 102400u);
    EXPECT_TRUE(entry->data == symbols.substr(0, 102400));
}

TEST(stream_proc, skips_memory_images_and_the_kernel_log) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    snapshot taken = take_snapshot();
    ASSERT_FALSE(taken.listing.entries.empty());
    for (const char* name : {"kcore", "vmcore", "kmem", "kmsg"}) {
        EXPECT_EQ(taken.listing.find(taken.top() + name), nullptr) << name;
    }
}

TEST(stream_proc, does_not_report_files_that_nobody_can_open) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    std::string messages = take_snapshot().messages;
    for (const char* silent :
         {"/proc/sys/vm/compact_memory:", "/proc/sys/net/ipv4/route/flush:",
          "/proc/sys/net/ipv6/route/flush:", "/proc/sys/vm/drop_caches:", "/proc/sys/vm/stat_refresh:"}) {
        EXPECT_EQ(messages.find(silent), std::string::npos) << messages;
    }
}

TEST(stream_proc, second_snapshot_repeats_the_names_of_the_directories) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    test_archive archive;
    unique_fd err = memory_file();
    EXPECT_EQ(run_in_private_world([&] {
                  dup2(err.get(), STDERR_FILENO);
                  return stream_proc(archive.handle(), archive.fd()) +
                         stream_proc(archive.handle(), archive.fd());
              }),
              0);
    std::vector<std::string> names = tar_read(archive.bytes()).names();
    EXPECT_EQ(std::count(names.begin(), names.end(), "proc/sys/kernel/ostype"), 2);
    EXPECT_EQ(std::count(names.begin(), names.end(), "proc/net/dev"), 2);
}

TEST(stream_proc, reads_the_directories_in_the_order_of_the_table) {
    SKIP_WITHOUT_ROOT();
    temp_dir root;
    std::vector<std::string> expected = {"version"};
    root.write_file("proc/version", "text");
    root.write_file("proc/4711/status", "text");
    root.write_file("proc/bus/other", "text");
    for (const char* skipped : {"kcore", "vmcore", "kmem", "kmsg"}) {
        root.write_file("proc/" + std::string(skipped), "text");
    }
    for (const std::string& dir : snapshot_dirs) {
        root.write_file(dir + "marker", dir);
        expected.push_back(dir + "marker");
    }
    // The names that are skipped at the top are not skipped below.
    root.write_file("proc/net/vlan/kmsg", "text");
    unlink(root.path("proc/net/vlan/marker").c_str());
    expected.back() = "proc/net/vlan/kmsg";

    test_archive archive;
    int status = run_in_child([&] {
        if (chroot(root.path().c_str()) != 0) {
            return 2;
        }
        int result = stream_proc(archive.handle(), archive.fd());
        tar_close(archive.handle());
        return result;
    });
    EXPECT_TRUE(exited_with(status, 0));
    tar_listing listing = tar_read(archive.bytes());
    EXPECT_EQ(listing.trouble, "");
    std::vector<std::string> names = listing.names();
    ASSERT_FALSE(names.empty());
    EXPECT_TRUE(has_shape(names[0], "proc.99999999-999999/version")) << names[0];
    names[0] = "version";
    EXPECT_EQ(names, expected);
}

TEST(stream_proc, returns_1_if_proc_cannot_be_opened) {
    SKIP_WITHOUT_ROOT();
    temp_dir empty;
    test_archive archive;
    int status = run_in_child([&] {
        if (chroot(empty.path().c_str()) != 0) {
            return 2;
        }
        return stream_proc(archive.handle(), archive.fd());
    });
    EXPECT_TRUE(exited_with(status, 1));
    EXPECT_EQ(archive.bytes(), "");
}

TEST(stream_kcore, limit_is_10_mebibytes) {
    EXPECT_EQ(kcore_limit, 10485760);
}

TEST(stream_kcore, stores_a_file_up_to_the_limit_whole) {
    temp_dir folder;
    for (size_t size : {1, 511, 512, 20000, 10485760}) {
        std::string bytes = noise(size);
        std::string path = folder.write_file("kcore", bytes);
        test_archive archive("top/");
        EXPECT_EQ(stream_kcore_from(archive.handle(), archive.fd(), path.c_str()), 0);
        tar_listing listing = archive.finish();
        EXPECT_EQ(listing.trouble, "");
        ASSERT_EQ(listing.names(), std::vector<std::string>{"top/kcore"});
        EXPECT_EQ(listing.entries[0].size, size);
        EXPECT_TRUE(listing.entries[0].data == bytes);
    }
}

TEST(stream_kcore, skips_an_empty_or_larger_file) {
    temp_dir folder;
    expect_nothing_stored(sparse_file(folder, 0));
    expect_nothing_stored(sparse_file(folder, 10485761));
    expect_nothing_stored(sparse_file(folder, (off_t{1} << 32) + 1000));
}

TEST(stream_kcore, skips_a_missing_file_silently) {
    temp_dir folder;
    expect_nothing_stored(folder.path("kcore"));
}

TEST(stream_kcore, skips_an_unreadable_file) {
    temp_dir folder;
    expect_nothing_stored(folder.path());
}

TEST(stream_kcore, pads_a_short_copy_with_zeros_but_counts_only_the_copied_bytes) {
    std::string path = small_sysfs_file();
    if (path.empty()) {
        GTEST_SKIP() << "no file here is shorter than its size";
    }
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    size_t promised = static_cast<size_t>(status.st_size);
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string content = content_of(file.get());
    test_archive archive;
    EXPECT_EQ(stream_kcore_from(archive.handle(), archive.fd(), path.c_str()), 0);
    std::string bytes = archive.bytes();
    ASSERT_EQ(bytes.size(), 512 + promised);
    EXPECT_EQ(tar_octal_field(bytes, 124, 12), static_cast<long long>(promised));
    EXPECT_EQ(bytes.substr(512), content + std::string(promised - content.size(), '\0'));
    (void)archive.finish();
    EXPECT_EQ(archive.bytes().size(), 512 + promised + (512 - content.size() % 512) % 512);
}

TEST(stream_kcore, returns_1_if_the_output_is_broken) {
    ignore_broken_pipes();
    temp_dir folder;
    std::string path = folder.write_file("kcore", "x");
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    EXPECT_EQ(stream_kcore_from(t, broken.in.get(), path.c_str()), 1);
    tar_abandon(t);
}

TEST(stream_kcore, closes_what_it_opens) {
    temp_dir folder;
    std::set<int> before = open_fds();
    for (off_t size : {0, 1, 10485761}) {
        std::string path = sparse_file(folder, size);
        test_archive archive;
        EXPECT_EQ(stream_kcore_from(archive.handle(), archive.fd(), path.c_str()), 0);
    }
    EXPECT_EQ(open_fds(), before);
}

TEST(stream_kcore, stores_the_kernel_core_if_it_is_small_enough) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    test_archive archive;
    off_t size = 0;
    struct stat status;
    if (stat("/proc/kcore", &status) == 0) {
        size = status.st_size;
    }
    EXPECT_EQ(run_in_private_world([&] { return stream_kcore(archive.handle(), archive.fd()); }), 0);
    bool fits = size > 0 && size <= 10485760;
    EXPECT_EQ(archive.bytes().empty(), !fits);
}
