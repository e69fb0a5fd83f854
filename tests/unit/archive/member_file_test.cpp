#include "archive/member_file.h"

#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "archive/manifest.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// Runs before the next lseek(2) to a file's beginning.
std::function<void()> before_rewind;

}  // namespace

// Replaces lseek(2) of the C library in this program: calls before_rewind, then does the same.
extern "C" off_t lseek(int fd, off_t offset, int whence) noexcept {
    if (before_rewind && offset == 0 && whence == SEEK_SET) {
        before_rewind();
    }
    using seeker = off_t (*)(int, off_t, int);
    static const auto real = reinterpret_cast<seeker>(dlsym(RTLD_NEXT, "lseek64"));
    return real(fd, offset, whence);
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct outcome {
    int result = -1;
    std::string messages;  // on standard error
    tar_listing listing;
    milliseconds took{0};
};

template <typename Store>
outcome stored(Store store) {
    outcome seen;
    test_archive archive;
    auto start = steady_clock::now();
    seen.messages = capture_stderr([&] { seen.result = store(archive.handle(), archive.fd()); });
    seen.took = std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
    seen.listing = archive.finish();
    EXPECT_EQ(seen.listing.trouble, "");
    return seen;
}

outcome stored_file(const std::string& path, unsigned limit = 0) {
    return stored(
        [&](tar_handle* t, int fd) { return stream_file_unknownsize(t, fd, "member", path.c_str(), limit); });
}

outcome stored_dir(const std::string& path, const char* const* skip = nullptr, const char* prefix = "in/",
                   int64_t bound = member_read_bound) {
    return stored([&](tar_handle* t, int fd) {
        return stream_dir_unknownsize(t, fd, prefix, path.c_str(), skip, bound);
    });
}

void expect_only_member(const outcome& seen, const std::string& data) {
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    ASSERT_EQ(seen.listing.names(), std::vector<std::string>{"member"});
    EXPECT_EQ(seen.listing.entries[0].size, data.size());
    EXPECT_TRUE(seen.listing.entries[0].data == data);
}

void expect_no_member(const outcome& seen, const std::string& messages) {
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, messages);
    EXPECT_TRUE(seen.listing.entries.empty());
}

std::string error_line(const std::string& path, int error) {
    return path + ": " + strerror(error) + "\n";
}

// A FIFO that this process holds open for writing: its reader gets no end of file.
struct held_fifo {
    explicit held_fifo(const std::string& path) {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        writer = unique_fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_TRUE(writer);
    }
    unique_fd writer;
};

constexpr milliseconds timeout(member_read_timeout_ms);
constexpr milliseconds scheduling_slack(5000);

}  // namespace

TEST(stream_file_unknownsize, stores_a_file_whole) {
    temp_dir folder;
    expect_only_member(stored_file(folder.write_file("file", "two\nlines\n")), "two\nlines\n");
    std::string bytes = noise(5000);
    expect_only_member(stored_file(folder.write_file("bytes", bytes)), bytes);
}

TEST(stream_file_unknownsize, default_bound_is_102400_bytes) {
    temp_dir folder;
    EXPECT_EQ(member_read_bound, 102400u);
    std::string bytes = noise(102401);
    for (size_t size : {102399, 102400, 102401}) {
        expect_only_member(stored_file(folder.write_file("file", bytes.substr(0, size))),
                           bytes.substr(0, std::min<size_t>(size, 102400)));
    }
}

TEST(stream_file_unknownsize, cuts_at_the_limit_of_the_caller_without_a_message) {
    temp_dir folder;
    std::string path = folder.write_file("file", "0123456789");
    expect_only_member(stored_file(path, 1), "0");
    expect_only_member(stored_file(path, 9), "012345678");
    expect_only_member(stored_file(path, 10), "0123456789");
    expect_only_member(stored_file(path, 11), "0123456789");
    std::string large = noise(200000);
    expect_only_member(stored_file(folder.write_file("large", large), 200000), large);
}

TEST(stream_file_unknownsize, endless_file_is_cut_at_the_bound) {
    expect_only_member(stored_file("/dev/zero", 1000), std::string(1000, '\0'));
    expect_only_member(stored_file("/dev/zero"), std::string(102400, '\0'));
}

TEST(stream_file_unknownsize, file_that_reports_no_size_is_read_to_its_end) {
    struct stat status;
    ASSERT_EQ(stat("/proc/version", &status), 0);
    ASSERT_EQ(status.st_size, 0);
    unique_fd file(open("/proc/version", O_RDONLY | O_CLOEXEC));
    expect_only_member(stored_file("/proc/version"), content_of(file.get()));
}

TEST(stream_file_unknownsize, name_begins_with_the_prefix_of_the_archive) {
    temp_dir folder;
    test_archive archive("top/");
    std::string path = folder.write_file("file", "x");
    EXPECT_EQ(stream_file_unknownsize(archive.handle(), archive.fd(), "a/b.txt", path.c_str(), 0), 0);
    EXPECT_EQ(archive.finish().names(), std::vector<std::string>{"top/a/b.txt"});
}

TEST(stream_file_unknownsize, skips_empty_files) {
    temp_dir folder;
    expect_no_member(stored_file(folder.write_file("empty", "")), "");
    expect_no_member(stored_file("/dev/null"), "");
}

TEST(stream_file_unknownsize, skips_directories_silently) {
    temp_dir folder;
    expect_no_member(stored_file(folder.path()), "");
}

TEST(stream_file_unknownsize, missing_file_is_reported_once) {
    temp_dir folder;
    std::string path = folder.path("missing");
    expect_no_member(stored_file(path), error_line(path, ENOENT));
}

TEST(stream_file_unknownsize, read_error_is_reported_once) {
    temp_dir folder;
    std::string path = folder.path("unreadable");
    ASSERT_EQ(symlink("/proc/self/mem", path.c_str()), 0);  // nothing is mapped at address 0
    expect_no_member(stored_file(path), error_line(path, EIO));
}

TEST(stream_file_unknownsize, silently_skips_files_that_nobody_can_open) {
    int tried = 0;
    for (const char* path : {"/proc/sys/vm/compact_memory", "/proc/sys/net/ipv4/route/flush",
                             "/proc/sys/net/ipv6/route/flush"}) {
        unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
        if (!file) {
            tried++;
            expect_no_member(stored_file(path), "");
        }
    }
    if (tried == 0) {
        GTEST_SKIP() << "every one of them can be opened here";
    }
}

TEST(stream_file_unknownsize, reports_unreadable_files_of_other_paths) {
    temp_dir folder;
    std::string link = folder.path("compact_memory");
    ASSERT_EQ(symlink("/proc/sys/vm/compact_memory", link.c_str()), 0);
    unique_fd file(open(link.c_str(), O_RDONLY | O_CLOEXEC));
    if (file) {
        GTEST_SKIP() << "/proc/sys/vm/compact_memory can be opened here";
    }
    expect_no_member(stored_file(link), error_line(link, errno));
}

TEST(stream_file_unknownsize, closes_what_it_opens) {
    temp_dir folder;
    std::string file = folder.write_file("file", "x");
    std::string missing = folder.path("missing");
    std::string dir = folder.path() + "/";
    std::set<int> before = open_fds();
    for (const std::string& path : {file, missing, dir}) {
        (void)stored_file(path);
    }
    (void)stored_dir(dir);
    (void)stored_dir(missing + "/");
    EXPECT_EQ(open_fds(), before);
}

TEST(stream_file_unknownsize, broken_output_does_not_change_the_result) {
    ignore_broken_pipes();
    temp_dir folder;
    std::string path = folder.write_file("file", "x");
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    EXPECT_EQ(stream_file_unknownsize(t, broken.in.get(), "member", path.c_str(), 0), 0);
    tar_abandon(t);
}

TEST(stream_file_unknownsize, returns_1_if_memory_runs_out) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's allocator does not work under a memory limit";
#endif
    temp_dir folder;
    std::string path = folder.write_file("file", "x");
    unique_fd err = memory_file();
    test_archive archive;
    int status = run_in_child([&] {
        dup2(err.get(), STDERR_FILENO);
        rlimit limit = {256 << 20, 256 << 20};
        setrlimit(RLIMIT_AS, &limit);
        return stream_file_unknownsize(archive.handle(), archive.fd(), "member", path.c_str(), 1u << 30);
    });
    EXPECT_TRUE(exited_with(status, 1));
    EXPECT_EQ(archive.bytes(), "");
    EXPECT_EQ(content_of(err.get()), "");
}

TEST(stream_file_unknownsize, skips_a_fifo_without_a_writer_at_once) {
    temp_dir folder;
    std::string path = folder.path("fifo");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    outcome seen = stored_file(path);
    expect_no_member(seen, "");
    EXPECT_LT(seen.took, timeout);
}

TEST(stream_file_unknownsize, gives_up_on_a_silent_fifo_after_the_timeout) {
    temp_dir folder;
    held_fifo fifo(folder.path("fifo"));
    outcome seen = stored_file(folder.path("fifo"));
    expect_no_member(seen, "");
    EXPECT_GE(seen.took, timeout - milliseconds(100));
    EXPECT_LT(seen.took, timeout + scheduling_slack);
}

TEST(stream_file_unknownsize, stores_the_bytes_that_a_fifo_had_before_the_timeout) {
    temp_dir folder;
    held_fifo fifo(folder.path("fifo"));
    ASSERT_EQ(write(fifo.writer.get(), "half", 4), 4);
    outcome seen = stored_file(folder.path("fifo"));
    expect_only_member(seen, "half");
    EXPECT_LT(seen.took, timeout + scheduling_slack);
}

TEST(stream_file_unknownsize, fifo_is_read_until_its_writer_closes) {
    temp_dir folder;
    held_fifo fifo(folder.path("fifo"));
    ASSERT_EQ(write(fifo.writer.get(), "first ", 6), 6);
    std::thread writer([&fifo] {
        int waiting = 1;
        // The second part is written after the first was read: the reader has to wait for it.
        eventually([&] { return ioctl(fifo.writer.get(), FIONREAD, &waiting) == 0 && waiting == 0; });
        EXPECT_EQ(write(fifo.writer.get(), "second", 6), 6);
        fifo.writer.reset();
    });
    outcome seen = stored_file(folder.path("fifo"));
    writer.join();
    expect_only_member(seen, "first second");
}

TEST(stream_file_unknownsize, timeout_includes_a_fifo_with_a_slow_writer) {
    temp_dir folder;
    held_fifo fifo(folder.path("fifo"));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            EXPECT_EQ(write(fifo.writer.get(), ".", 1), 1);
            std::this_thread::sleep_for(milliseconds(50));
        }
    });
    outcome seen = stored_file(folder.path("fifo"));
    stop = true;
    writer.join();
    EXPECT_EQ(seen.result, 0);
    ASSERT_EQ(seen.listing.entries.size(), 1u);
    EXPECT_LT(seen.took, timeout + scheduling_slack);
}

TEST(stream_dir_unknownsize, stores_each_file_as_prefix_and_name) {
    temp_dir folder;
    folder.write_file("one", "1");
    folder.write_file("two", "22");
    outcome seen = stored_dir(folder.path() + "/", nullptr, "some/where/");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    ASSERT_EQ(seen.listing.entries.size(), 2u);
    ASSERT_NE(seen.listing.find("some/where/one"), nullptr);
    EXPECT_EQ(seen.listing.find("some/where/one")->data, "1");
    ASSERT_NE(seen.listing.find("some/where/two"), nullptr);
    EXPECT_EQ(seen.listing.find("some/where/two")->data, "22");
}

TEST(stream_dir_unknownsize, keeps_the_order_of_the_directory) {
    temp_dir folder;
    for (int i = 0; i < 60; i++) {
        folder.write_file("file" + std::to_string(i * 7919 % 60), "x");
    }
    std::vector<std::string> expected;
    unique_dir dir(opendir(folder.path().c_str()));
    while (const dirent* entry = readdir(dir.get())) {
        if (entry->d_name[0] != '.') {
            expected.push_back("in/" + std::string(entry->d_name));
        }
    }
    ASSERT_EQ(expected.size(), 60u);
    EXPECT_EQ(stored_dir(folder.path() + "/").listing.names(), expected);
}

TEST(stream_dir_unknownsize, does_not_enter_subdirectories) {
    temp_dir folder;
    folder.write_file("plain", "x");
    folder.write_file("sub/hidden", "x");
    ASSERT_EQ(symlink(folder.path("sub").c_str(), folder.path("link").c_str()), 0);
    outcome seen = stored_dir(folder.path() + "/");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.listing.names(), std::vector<std::string>{"in/plain"});
}

TEST(stream_dir_unknownsize, skips_the_names_of_the_list) {
    temp_dir folder;
    for (const char* name : {"kcore", "kcore2", "kcor", "kmsg", "other"}) {
        folder.write_file(name, "x");
    }
    const char* const skip[] = {"kcore", "kmsg", nullptr};
    tar_listing listing = stored_dir(folder.path() + "/", skip).listing;
    EXPECT_EQ(listing.entries.size(), 3u);
    EXPECT_EQ(listing.find("in/kcore"), nullptr);
    EXPECT_EQ(listing.find("in/kmsg"), nullptr);
    const char* const nothing[] = {nullptr};
    EXPECT_EQ(stored_dir(folder.path() + "/", nothing).listing.entries.size(), 5u);
}

TEST(stream_dir_unknownsize, does_not_open_skipped_files) {
    temp_dir folder;
    held_fifo fifo(folder.path("kmsg"));
    ASSERT_EQ(write(fifo.writer.get(), "log", 3), 3);
    const char* const skip[] = {"kmsg", nullptr};
    EXPECT_TRUE(stored_dir(folder.path() + "/", skip).listing.entries.empty());
    int waiting = 0;
    EXPECT_EQ(ioctl(fifo.writer.get(), FIONREAD, &waiting), 0);
    EXPECT_EQ(waiting, 3);
}

TEST(stream_dir_unknownsize, continues_after_unreadable_and_empty_files) {
    temp_dir folder;
    folder.write_file("a", "1");
    folder.write_file("empty", "");
    folder.write_file("z", "2");
    ASSERT_EQ(symlink("nowhere", folder.path("m").c_str()), 0);
    outcome seen = stored_dir(folder.path() + "/");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, error_line(folder.path("m"), ENOENT));
    EXPECT_EQ(seen.listing.entries.size(), 2u);
}

TEST(stream_dir_unknownsize, continues_after_a_silent_fifo) {
    temp_dir folder;
    folder.write_file("a", "1");
    held_fifo fifo(folder.path("m"));
    folder.write_file("z", "2");
    outcome seen = stored_dir(folder.path() + "/");
    EXPECT_EQ(seen.result, 0);
    EXPECT_EQ(seen.messages, "");
    EXPECT_EQ(seen.listing.entries.size(), 2u);
    EXPECT_LT(seen.took, timeout + scheduling_slack);
}

TEST(stream_dir_unknownsize, cuts_long_files_at_the_default_bound) {
    temp_dir folder;
    folder.write_file("long", noise(150000));
    tar_listing listing = stored_dir(folder.path() + "/").listing;
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_TRUE(listing.entries[0].data == noise(150000).substr(0, 102400));
}

TEST(stream_dir_unknownsize, stores_long_files_up_to_the_bound_of_the_caller) {
    temp_dir folder;
    for (size_t size : {102399u, 102400u, 102401u, 299999u, 300000u, 300001u}) {
        folder.write_file("long", noise(size));
        const outcome seen = stored_dir(folder.path() + "/", nullptr, "in/", 300000);
        ASSERT_EQ(seen.listing.names(), std::vector<std::string>{"in/long"}) << size;
        EXPECT_TRUE(seen.listing.entries[0].data == noise(size).substr(0, 300000)) << size;
        EXPECT_EQ(seen.messages, "");
    }
}

TEST(stream_dir_unknownsize, cuts_a_long_file_that_cannot_be_read_twice_at_the_default_bound) {
    temp_dir folder;
    const held_fifo fifo(folder.path("fifo"));
    ASSERT_GE(fcntl(fifo.writer.get(), F_SETPIPE_SZ, 1 << 20), 150000);
    const std::string bytes = noise(150000);
    ASSERT_EQ(write(fifo.writer.get(), bytes.data(), bytes.size()), 150000);
    const outcome seen = stored_dir(folder.path() + "/", nullptr, "in/", 300000);
    ASSERT_EQ(seen.listing.names(), std::vector<std::string>{"in/fifo"});
    EXPECT_TRUE(seen.listing.entries[0].data == bytes.substr(0, 102400));
    EXPECT_LT(seen.took, timeout);
}

TEST(stream_dir_unknownsize, pads_a_long_file_that_becomes_shorter_meanwhile) {
    temp_dir folder;
    const std::string path = folder.write_file("long", noise(250000));
    before_rewind = [&path] { EXPECT_EQ(truncate(path.c_str(), 120000), 0); };
    const outcome seen = stored_dir(folder.path() + "/", nullptr, "in/", 300000);
    before_rewind = nullptr;
    ASSERT_EQ(seen.listing.names(), std::vector<std::string>{"in/long"});
    EXPECT_TRUE(seen.listing.entries[0].data == noise(250000).substr(0, 120000) + filler(130000));
}

TEST(stream_dir_unknownsize, stores_no_more_of_a_long_file_that_grows_than_it_promised) {
    temp_dir folder;
    const std::string path = folder.write_file("long", noise(200000));
    before_rewind = [&path] { EXPECT_EQ(truncate(path.c_str(), 250000), 0); };
    const outcome seen = stored_dir(folder.path() + "/", nullptr, "in/", 300000);
    before_rewind = nullptr;
    ASSERT_EQ(seen.listing.names(), std::vector<std::string>{"in/long"});
    EXPECT_TRUE(seen.listing.entries[0].data == noise(200000));
}

TEST(stream_dir_unknownsize, stores_files_with_the_longest_names) {
    temp_dir folder;
    std::string file = folder.write_file(std::string(255, 'n'), "x");
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    tar_listing listing = stored_dir(folder.path() + "/").listing;
    std::string end = "~" + std::to_string(status.st_ino);
    EXPECT_EQ(listing.names(), std::vector<std::string>{"in/" + std::string(99 - 3 - end.size(), 'n') + end});
}

TEST(stream_dir_unknownsize, notes_a_folder_that_could_not_be_opened_unless_it_is_missing) {
    const auto manifest_of = [](const std::string& path, size_t descriptors) {
        test_archive archive;
        manifest list;
        manifest_begin(&list, archive.handle());
        {
            few_fds_left few(descriptors);
            EXPECT_EQ(stream_dir_unknownsize(archive.handle(), archive.fd(), "in/", path.c_str(), nullptr),
                      1);
        }
        manifest_store(&list, archive.handle());
        return archive.finish().entries.back().data;
    };
    temp_dir folder;
    EXPECT_NE(manifest_of(folder.path() + "/", 0).find("in/: Too many open files\n"), std::string::npos);
    EXPECT_NE(manifest_of(folder.path() + "/missing/", 5).find("errors: 0\n"), std::string::npos);
}

TEST(stream_dir_unknownsize, empty_directory_stores_nothing) {
    temp_dir folder;
    expect_no_member(stored_dir(folder.path() + "/"), "");
}

TEST(stream_dir_unknownsize, missing_directory_returns_1_silently) {
    temp_dir folder;
    for (const std::string& path : {folder.path("missing/"), folder.write_file("file", "x")}) {
        outcome seen = stored_dir(path);
        EXPECT_EQ(seen.result, 1);
        EXPECT_EQ(seen.messages, "");
        EXPECT_TRUE(seen.listing.entries.empty());
    }
}
