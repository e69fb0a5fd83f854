#include "archive/tar.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// The header that one call of tar_addfile writes.
std::string header_of(const char* prefix, const std::string& name, int size) {
    test_archive archive(prefix);
    tar_addfile(archive.handle(), name.c_str(), size);
    return archive.bytes();
}

// The expected header, with the time of `header`.
std::string expected_like(const std::string& header, const std::string& whole_name, long long size) {
    return tar_expected_header(whole_name, size, tar_octal_field(header, 136, 12));
}

// The size of the padding after a member of `counted` bytes.
size_t padding_after(size_t counted) {
    test_archive archive;
    tar_addfile(archive.handle(), "member", 0);
    tar_fakewrite(archive.handle(), counted);
    (void)archive.finish();
    return archive.bytes().size() - 512;
}

// The sizes of the writes that `work` makes on the descriptor it gets, in order.
template <typename Work>
std::vector<ssize_t> write_sizes(Work work) {
    test_socketpair pair(SOCK_SEQPACKET);
    work(pair.a.get());
    pair.a.reset();
    std::vector<ssize_t> sizes;
    char packet[65536];
    ssize_t got;
    while ((got = read(pair.b.get(), packet, sizeof packet)) > 0) {
        sizes.push_back(got);
    }
    return sizes;
}

bool is_installed(const std::string& program) {
    return system(("command -v " + program + " >/dev/null 2>&1").c_str()) == 0;
}

// busybox has programs of the same names with other options.
bool is_gnus(const std::string& program) {
    return system((program + " --version 2>/dev/null | grep -q GNU").c_str()) == 0;
}

// Exit status and outputs of a shell command.
std::pair<int, std::string> run_shell(const std::string& command) {
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char block[4096];
    size_t got;
    while (pipe && (got = fread(block, 1, sizeof block, pipe)) > 0) {
        text.append(block, got);
    }
    return {pipe ? pclose(pipe) : -1, text};
}

// A file with an archive of members whose sizes are around the block size.
std::string write_sample(const temp_dir& folder) {
    test_archive archive("top/");
    for (int size : {0, 1, 511, 512, 513, 5000}) {
        std::string name = "dir/member" + std::to_string(size);
        std::string data(static_cast<size_t>(size), 'x');
        tar_addfile(archive.handle(), name.c_str(), size);
        tar_write(archive.handle(), data.data(), data.size());
    }
    (void)archive.finish();
    return folder.write_file("sample.tar", archive.bytes());
}

// The expected listing of the sample: name, size, owner and mode, one line for each member.
std::string sample_listing() {
    std::string text;
    for (int size : {0, 1, 511, 512, 513, 5000}) {
        text += "top/dir/member" + std::to_string(size) + " " + std::to_string(size) + " admin 64 644\n";
    }
    return text;
}

void expect_extracted(const temp_dir& folder) {
    for (int size : {0, 1, 511, 512, 513, 5000}) {
        unique_fd file(
            open(folder.path("out/top/dir/member" + std::to_string(size)).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(file) << size;
        EXPECT_EQ(read_all(file.get()), std::string(static_cast<size_t>(size), 'x'));
    }
}

// The archive of one member between two others, without the times of its headers.
template <typename Store>
std::string archive_around(const std::string& data, Store store) {
    test_archive archive("top/");
    tar_addfile(archive.handle(), "before", 3);
    tar_write(archive.handle(), "abc", 3);
    store(archive.handle(), "stored", data.data(), data.size());
    tar_addfile(archive.handle(), "after", 1);
    tar_write(archive.handle(), "d", 1);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    std::string bytes = archive.bytes();
    for (const tar_entry& entry : listing.entries) {
        bytes.replace(entry.header_at + 136, 20, 20, '#');  // the time and the checksum
    }
    return bytes;
}

// Keeps what a watch is told.
struct noting_watch : tar_watch {
    std::string notes;
    noting_watch() {
        on_header = [](tar_watch* watch, const char* name, int size) {
            static_cast<noting_watch*>(watch)->notes += std::string(name) + " " + std::to_string(size) + "\n";
        };
        on_data = [](tar_watch* watch, size_t length) {
            static_cast<noting_watch*>(watch)->notes += std::to_string(length) + "\n";
        };
    }
};

}  // namespace

TEST(tar_new, copies_the_prefix) {
    char prefix[] = "top/";
    tar_handle* t = tar_new(7, prefix);
    ASSERT_NE(t, nullptr);
    memset(prefix, '#', sizeof prefix - 1);
    EXPECT_STREQ(t->prefix, "top/");
    EXPECT_EQ(t->prefix_len, 4u);
    EXPECT_EQ(t->fd, 7);
    EXPECT_EQ(t->member_bytes, 0u);
    tar_abandon(t);
}

TEST(tar_new, null_or_empty_prefix_means_none) {
    for (const char* prefix : {static_cast<const char*>(nullptr), ""}) {
        tar_handle* t = tar_new(1, prefix);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->prefix, nullptr);
        EXPECT_EQ(t->prefix_len, 0u);
        tar_abandon(t);
        std::string header = header_of(prefix, "name", 3);
        EXPECT_EQ(header, expected_like(header, "name", 3));
    }
}

TEST(tar_close, returns_the_error_of_the_first_failed_write) {
    ignore_broken_pipes();
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    tar_handle* t = tar_new(full.get(), nullptr);
    tar_addfile(t, "a", 5);
    EXPECT_EQ(t->error, ENOSPC);
    test_pipe broken;
    broken.out.reset();
    t->fd = broken.in.get();
    tar_write(t, "12345", 5);
    EXPECT_EQ(tar_close(t), ENOSPC);
}

TEST(tar_close, returns_the_error_of_a_failed_last_padding) {
    unique_fd file = memory_file();
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    tar_handle* t = tar_new(file.get(), nullptr);
    tar_addfile(t, "a", 5);
    tar_write(t, "12345", 5);
    EXPECT_EQ(t->error, 0);
    t->fd = full.get();
    EXPECT_EQ(tar_close(t), ENOSPC);
}

TEST(tar_close, right_after_tar_new_writes_nothing) {
    test_archive archive("top/");
    EXPECT_EQ(archive.finish().entries.size(), 0u);
    EXPECT_EQ(archive.bytes(), "");
}

TEST(tar_close, leaves_the_descriptor_open) {
    test_archive archive;
    (void)archive.finish();
    EXPECT_EQ(write(archive.fd(), "x", 1), 1);
}

TEST(tar_close, writes_no_end_marker_after_the_last_padding) {
    test_archive archive;
    tar_addfile(archive.handle(), "a", 5);
    tar_write(archive.handle(), "hello", 5);
    (void)archive.finish();
    ASSERT_EQ(archive.bytes().size(), 1024u);
    EXPECT_EQ(archive.bytes().substr(512), "hello" + std::string(507, '\0'));
}

TEST(tar_abandon, writes_no_padding_and_leaves_the_descriptor_open) {
    unique_fd file = memory_file();
    tar_handle* t = tar_new(file.get(), "top/");
    tar_addfile(t, "a", 5);
    tar_write(t, "hello", 5);
    tar_abandon(t);
    EXPECT_EQ(content_of(file.get()).size(), 517u);
    EXPECT_EQ(write(file.get(), "x", 1), 1);
}

TEST(tar_addfile, header_is_the_expected_block) {
    for (const char* prefix : {static_cast<const char*>(nullptr), "debug-20260102-030405-c0/"}) {
        for (int size : {0, 1, 8, 511, 512, 102400, 10485760, INT_MAX}) {
            std::string header = header_of(prefix, "proc/sys/vm/swappiness", size);
            ASSERT_EQ(header.size(), 512u);
            std::string name = std::string(prefix ? prefix : "") + "proc/sys/vm/swappiness";
            EXPECT_EQ(header, expected_like(header, name, size)) << size;
        }
    }
}

TEST(tar_addfile, fields_are_at_their_offsets) {
    using namespace std::string_literals;
    std::string header = header_of("top/", "name", 8);
    EXPECT_EQ(header.substr(0, 100), "top/name" + std::string(92, '\0'));
    EXPECT_EQ(header.substr(100, 8), "0000644\0"s);
    EXPECT_EQ(header.substr(108, 8), "0000100\0"s);
    EXPECT_EQ(header.substr(116, 8), "0000100\0"s);
    EXPECT_EQ(header.substr(124, 12), "00000000010\0"s);
    EXPECT_EQ(header[147], '\0');
    EXPECT_EQ(header.substr(154, 2), "\0 "s);
    EXPECT_EQ(header[156], '0');
    EXPECT_EQ(header.substr(157, 100), std::string(100, '\0'));
    EXPECT_EQ(header.substr(257, 6), "ustar\0"s);
    EXPECT_EQ(header.substr(263, 2), "  ");
    EXPECT_EQ(header.substr(265, 32), "admin" + std::string(27, '\0'));
    EXPECT_EQ(header.substr(297, 32), "admin" + std::string(27, '\0'));
    EXPECT_EQ(header.substr(329), std::string(512 - 329, '\0'));
}

TEST(tar_addfile, checksum_is_six_octal_digits_of_the_sum) {
    std::string header = header_of(nullptr, "\xff\xfe\x80 bytes count as unsigned", 77);
    EXPECT_EQ(header.find_first_not_of("01234567", 148), 154u);
    EXPECT_EQ(tar_octal_field(header, 148, 6), static_cast<long long>(tar_header_sum(header)));
}

TEST(tar_addfile, sizes_are_eleven_octal_digits) {
    EXPECT_EQ(header_of(nullptr, "a", 0).substr(124, 11), "00000000000");
    EXPECT_EQ(header_of(nullptr, "a", 204800).substr(124, 11), "00000620000");
    EXPECT_EQ(header_of(nullptr, "a", INT_MAX).substr(124, 11), "17777777777");
}

TEST(tar_addfile, time_is_that_of_the_header_not_of_the_archive) {
    test_archive archive;
    time_t made = time(nullptr);
    ASSERT_TRUE(eventually([made] { return time(nullptr) > made; }));
    time_t before = time(nullptr);
    tar_addfile(archive.handle(), "late", 0);
    time_t after = time(nullptr);
    tar_listing listing = archive.finish();
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_GE(listing.entries[0].mtime, before);
    EXPECT_LE(listing.entries[0].mtime, after);
}

TEST(tar_addfile, names_up_to_100_bytes_are_kept_and_longer_ones_cut) {
    for (size_t length : {98, 99, 100, 101, 102, 300}) {
        std::string name(length, 'n');
        name.back() = '!';
        std::string header = header_of(nullptr, name, 9);
        EXPECT_EQ(header, expected_like(header, name.substr(0, 100), 9)) << length;
    }
}

TEST(tar_addfile, prefix_and_name_share_the_100_bytes) {
    for (size_t prefix_length : {60, 99, 100, 101, 155, 5000}) {
        std::string prefix(prefix_length - 1, 'p');
        prefix += '/';
        std::string name = std::string(38, 'n') + "123456";
        std::string header = header_of(prefix.c_str(), name, 9);
        EXPECT_EQ(header, expected_like(header, (prefix + name).substr(0, 100), 9)) << prefix_length;
    }
}

TEST(tar_addfile, member_of_size_0_is_followed_directly_by_the_next_header) {
    test_archive archive;
    tar_addfile(archive.handle(), "empty", 0);
    tar_addfile(archive.handle(), "next", 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    EXPECT_EQ(listing.names(), (std::vector<std::string>{"empty", "next"}));
    EXPECT_EQ(archive.bytes().size(), 1024u);
}

TEST(tar_addfile, count_restarts) {
    test_archive archive;
    tar_addfile(archive.handle(), "first", 700);
    tar_fakewrite(archive.handle(), 700);
    EXPECT_EQ(archive.handle()->member_bytes, 700u);
    tar_addfile(archive.handle(), "second", 0);
    EXPECT_EQ(archive.handle()->member_bytes, 0u);
}

TEST(tar_addfile, same_name_twice_is_two_members) {
    test_archive archive;
    tar_addfile(archive.handle(), "twin", 1);
    tar_write(archive.handle(), "1", 1);
    tar_addfile(archive.handle(), "twin", 1);
    tar_write(archive.handle(), "2", 1);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (std::vector<std::string>{"twin", "twin"}));
    EXPECT_EQ(listing.entries[0].data, "1");
    EXPECT_EQ(listing.entries[1].data, "2");
}

TEST(tar_addfile, pads_the_previous_member_with_zeros_to_a_block) {
    for (size_t size : {1, 2, 511, 512, 513, 1023, 1024, 1025}) {
        test_archive archive;
        std::string data(size, 'd');
        tar_addfile(archive.handle(), "first", static_cast<int>(size));
        tar_write(archive.handle(), data.data(), data.size());
        EXPECT_EQ(archive.bytes().size(), 512 + size) << "no padding before it is needed";
        tar_addfile(archive.handle(), "second", 0);
        size_t whole = (size + 511) / 512 * 512;
        std::string bytes = archive.bytes();
        ASSERT_EQ(bytes.size(), 512 + whole + 512) << size;
        EXPECT_EQ(bytes.substr(512, whole), data + std::string(whole - size, '\0'));
        EXPECT_EQ(bytes.substr(512 + whole, 6), "second");
        (void)archive.finish();
        EXPECT_EQ(archive.bytes(), bytes) << "an empty last member needs no padding";
    }
}

TEST(tar_store, makes_the_same_archive_as_addfile_and_write) {
    for (size_t size : {0, 1, 511, 512, 513, 1024, 7167, 7168, 7169, 102400}) {
        const std::string data = noise(size);
        const std::string in_steps =
            archive_around(data, [](tar_handle* t, const char* name, const void* bytes, size_t length) {
                tar_addfile(t, name, static_cast<int>(length));
                tar_write(t, bytes, length);
            });
        EXPECT_TRUE(archive_around(data, tar_store) == in_steps) << size;
    }
}

TEST(tar_store, of_a_last_member_leaves_nothing_to_pad) {
    test_archive archive;
    tar_store(archive.handle(), "last", "12345", 5);
    const std::string bytes = archive.bytes();
    EXPECT_EQ(bytes.size(), 1024u);
    tar_listing listing = archive.finish();
    EXPECT_EQ(archive.bytes(), bytes);
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_EQ(listing.entries[0].data, "12345");
}

TEST(tar_store, is_one_write_for_a_small_member) {
    std::vector<ssize_t> sizes = write_sizes([](int fd) {
        tar_handle* t = tar_new(fd, "top/");
        tar_addfile(t, "five", 5);
        tar_write(t, "12345", 5);
        tar_store(t, "stored", "12345", 5);
        tar_store(t, "block", std::string(512, 'b').data(), 512);
        tar_store(t, "large", std::string(8000, 'l').data(), 8000);
        tar_close(t);
    });
    EXPECT_EQ(sizes, (std::vector<ssize_t>{512, 5, 507, 1024, 1024, 512, 8000, 192}));
}

TEST(tar_store, tells_the_watch_of_the_header_and_the_data) {
    test_archive archive("top/");
    noting_watch watch;
    archive.handle()->watch = &watch;
    tar_store(archive.handle(), "small", "12345", 5);
    tar_store(archive.handle(), "large", std::string(8000, 'l').data(), 8000);
    EXPECT_EQ(watch.notes, "small 5\n5\nlarge 8000\n8000\n");
}

TEST(tar_store, failed_write_is_the_error_of_the_handle) {
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    tar_handle* t = tar_new(full.get(), nullptr);
    tar_store(t, "a", "12345", 5);
    EXPECT_EQ(tar_close(t), ENOSPC);
}

TEST(tar_fakewrite, counts_and_writes_nothing) {
    test_archive archive;
    tar_addfile(archive.handle(), "member", 10);
    tar_fakewrite(archive.handle(), 4);
    EXPECT_EQ(archive.bytes().size(), 512u);
    ASSERT_EQ(write(archive.fd(), "0123", 4), 4);
    tar_write(archive.handle(), "456789", 6);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_EQ(listing.entries[0].data, "0123456789");
}

TEST(tar_fakewrite, counts_modulo_512) {
    EXPECT_EQ(padding_after(0), 0u);
    EXPECT_EQ(padding_after(1), 511u);
    EXPECT_EQ(padding_after(511), 1u);
    EXPECT_EQ(padding_after(512), 0u);
    EXPECT_EQ(padding_after(10 * 512 + 100), 412u);
    EXPECT_EQ(padding_after(10485760), 0u);
    EXPECT_EQ(padding_after(UINT32_MAX), 1u);
}

TEST(tar_fakewrite, counts_add_up_beyond_32_bits) {
    test_archive archive;
    tar_addfile(archive.handle(), "huge", 0);
    tar_fakewrite(archive.handle(), UINT32_MAX);
    tar_fakewrite(archive.handle(), 300);
    tar_fakewrite(archive.handle(), 1);
    (void)archive.finish();
    EXPECT_EQ(archive.bytes().size(), 512u + 212u);
}

TEST(tar_fakewrite, padding_follows_the_count_and_not_the_promise) {
    test_archive archive;
    tar_addfile(archive.handle(), "short", 1000);
    tar_write(archive.handle(), "abc", 3);
    (void)archive.finish();
    EXPECT_EQ(archive.bytes().size(), 1024u);
}

TEST(tar, header_and_padding_are_one_write_each) {
    std::vector<ssize_t> sizes = write_sizes([](int fd) {
        tar_handle* t = tar_new(fd, "top/");
        tar_addfile(t, "five", 5);
        tar_write(t, "12345", 5);
        tar_addfile(t, "block", 512);
        tar_write(t, std::string(512, 'b').data(), 512);
        tar_addfile(t, "empty", 0);
        tar_addfile(t, "pieces", 3);
        tar_write(t, "1", 1);
        tar_write(t, "23", 2);
        tar_addfile(t, "counted", 511);
        tar_fakewrite(t, 511);
        tar_close(t);
    });
    EXPECT_EQ(sizes, (std::vector<ssize_t>{512, 5, 507, 512, 512, 512, 512, 1, 2, 509, 512, 1}));
}

TEST(tar, broken_output_is_not_reported) {
    ignore_broken_pipes();
    test_pipe broken;
    broken.out.reset();
    std::string messages = capture_stderr([&broken] {
        tar_handle* t = tar_new(broken.in.get(), "top/");
        tar_addfile(t, "a", 5);
        tar_write(t, "12345", 5);
        tar_addfile(t, "b", 5);
        tar_close(t);
    });
    EXPECT_EQ(messages, "");
}

TEST(tar, gnu_tar_lists_and_extracts_it) {
    if (!is_gnus("tar")) {
        GTEST_SKIP() << "no GNU tar here";
    }
    temp_dir folder;
    std::string sample = write_sample(folder);
    std::string out = folder.make_folder("out");
    auto [status, text] = run_shell("tar --numeric-owner -tvf " + sample);
    EXPECT_EQ(status, 0) << text;
    EXPECT_NE(text.find("-rw-r--r-- 64/64 "), std::string::npos) << text;
    EXPECT_NE(text.find(" top/dir/member5000\n"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 6) << text;
    auto [extracted, messages] = run_shell("tar --no-same-owner -xf " + sample + " -C " + out);
    EXPECT_EQ(extracted, 0);
    EXPECT_EQ(messages, "");
    expect_extracted(folder);
}

TEST(tar, bsdtar_lists_and_extracts_it) {
    if (!is_installed("bsdtar")) {
        GTEST_SKIP() << "no bsdtar here";
    }
    temp_dir folder;
    std::string sample = write_sample(folder);
    std::string out = folder.make_folder("out");
    auto [status, text] = run_shell("bsdtar -tf " + sample);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text,
              "top/dir/member0\ntop/dir/member1\ntop/dir/member511\ntop/dir/member512\ntop/dir/member513\n"
              "top/dir/member5000\n");
    auto [extracted, messages] = run_shell("bsdtar -xf " + sample + " -C " + out);
    EXPECT_EQ(extracted, 0);
    EXPECT_EQ(messages, "");
    expect_extracted(folder);
}

TEST(tar, python_reads_names_sizes_and_owners) {
    if (!is_installed("/usr/bin/python3")) {
        GTEST_SKIP() << "no Python here";
    }
    temp_dir folder;
    std::string script = folder.write_file("list.py",
                                           "import sys, tarfile\n"
                                           "for m in tarfile.open(sys.argv[1], 'r:'):\n"
                                           "    assert m.isreg() and m.uid == m.gid and m.uname == m.gname\n"
                                           "    print(m.name, m.size, m.uname, m.uid, oct(m.mode)[2:])\n");
    auto [status, text] = run_shell("/usr/bin/python3 " + script + " " + write_sample(folder));
    EXPECT_EQ(status, 0);
    EXPECT_EQ(text, sample_listing());
}
