#include "archive/manifest.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/private_world.h"
#include "tests/unit/support/tar_reader.h"

namespace {

// An archive with a manifest, and what `work` stores in it.
template <typename Work>
tar_listing with_manifest(Work work, const char* prefix = nullptr) {
    test_archive archive(prefix);
    manifest list;
    manifest_begin(&list, archive.handle());
    work(archive.handle());
    manifest_store(&list, archive.handle());
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    return listing;
}

void store(tar_handle* t, const char* name, const std::string& data) {
    tar_addfile(t, name, static_cast<int>(data.size()));
    tar_write(t, data.data(), data.size());
}

std::vector<std::string> lines_of(const tar_listing& listing) {
    EXPECT_FALSE(listing.entries.empty());
    EXPECT_TRUE(listing.entries.back().name.ends_with("manifest.txt"));
    std::vector<std::string> lines;
    std::istringstream text(listing.entries.back().data);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The seconds of a member's line.
double seconds_in(const std::string& line) {
    return atof(line.substr(13).c_str());
}

}  // namespace

TEST(manifest, lists_members_with_bytes_and_seconds) {
    const tar_listing listing = with_manifest([](tar_handle* t) {
        store(t, "first", std::string(12, 'x'));
        store(t, "folder/second", std::string(70000, 'y'));
    });
    const std::vector<std::string> lines = lines_of(listing);
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], "zarvo " ZARVO_VERSION);
    EXPECT_TRUE(has_shape(lines[1].substr(0, 28), "started 9999-99-99 99:99:99 ")) << lines[1];
    EXPECT_EQ(lines[2], "        bytes     seconds  member");
    EXPECT_TRUE(has_shape(lines[3], "           12    9.999999  first")) << lines[3];
    EXPECT_TRUE(has_shape(lines[4], "        70000    9.999999  folder/second")) << lines[4];
    EXPECT_TRUE(has_shape(lines[5].substr(0, 26), "ended 9999-99-99 99:99:99 ")) << lines[5];
    EXPECT_EQ(lines[6], "members: 2, bytes: 70012, errors: 0");
    EXPECT_EQ(lines[7], "complete");
    EXPECT_EQ(listing.entries.back().data.back(), '\n');
}

TEST(manifest, names_lack_the_prefix_of_the_archive) {
    const tar_listing listing = with_manifest([](tar_handle* t) { store(t, "first", "x"); }, "top/");
    EXPECT_EQ(listing.names(), (std::vector<std::string>{"top/first", "top/manifest.txt"}));
    EXPECT_TRUE(lines_of(listing)[3].ends_with("  first"));
}

TEST(manifest, of_no_members_is_complete) {
    const std::vector<std::string> lines = lines_of(with_manifest([](tar_handle*) {}));
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[4], "members: 0, bytes: 0, errors: 0");
}

TEST(manifest, empty_members_are_listed) {
    const auto store_empty = [](tar_handle* t) { tar_addfile(t, "empty", 0); };
    const std::vector<std::string> lines = lines_of(with_manifest(store_empty));
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_TRUE(lines[3].starts_with("            0 "));
    EXPECT_TRUE(lines[3].ends_with("  empty"));
}

TEST(manifest, member_that_was_counted_in_pieces_is_listed_once) {
    const tar_listing listing = with_manifest([](tar_handle* t) {
        tar_addfile(t, "pieces", 1000);
        const std::string half(500, 'x');
        tar_write(t, half.data(), half.size());
        tar_write(t, half.data(), half.size());
    });
    EXPECT_EQ(lines_of(listing)[4].substr(0, 6), "ended ");
}

TEST(manifest, seconds_include_the_preparation_of_a_member_and_not_what_follows) {
    const tar_listing listing = with_manifest([](tar_handle* t) {
        timespec pause = {0, 60000000};
        nanosleep(&pause, nullptr);
        store(t, "prepared", "x");
        store(t, "quick", "x");
    });
    const std::vector<std::string> lines = lines_of(listing);
    EXPECT_GE(seconds_in(lines[3]), 0.06);
    EXPECT_LT(seconds_in(lines[4]), seconds_in(lines[3]));
}

TEST(manifest, errors_are_listed_where_they_occurred_and_counted) {
    const tar_listing listing = with_manifest([](tar_handle* t) {
        store(t, "first", "x");
        manifest_note(t, "missing", ENOENT);
        store(t, "last", "x");
    });
    const std::vector<std::string> lines = lines_of(listing);
    EXPECT_EQ(lines[4], "        error              missing: No such file or directory");
    EXPECT_TRUE(lines[5].ends_with("  last"));
    EXPECT_EQ(lines[7], "members: 2, bytes: 2, errors: 1");
}

TEST(manifest, note_without_a_manifest_does_nothing) {
    test_archive archive;
    manifest_note(archive.handle(), "missing", ENOENT);
    EXPECT_EQ(archive.finish().entries.size(), 0u);
}

TEST(manifest, control_characters_in_names_cannot_fake_lines) {
    const tar_listing listing = with_manifest([](tar_handle* t) {
        store(t, "a\ncomplete\n", "x");
        manifest_note(t, "b\nc", ENOENT);
    });
    const std::vector<std::string> lines = lines_of(listing);
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_TRUE(lines[3].ends_with("  a?complete?"));
    EXPECT_TRUE(lines[4].ends_with("  b?c: No such file or directory"));
}

TEST(manifest, lists_thousands_of_members) {
    const tar_listing listing = with_manifest([](tar_handle* t) {
        for (int i = 0; i < 5000; i++) {
            store(t, ("member" + std::to_string(i)).c_str(), "x");
        }
    });
    const std::vector<std::string> lines = lines_of(listing);
    ASSERT_EQ(lines.size(), 5006u);
    for (size_t i = 0; i < 5000; i++) {
        ASSERT_TRUE(lines[i + 3].ends_with("  member" + std::to_string(i))) << lines[i + 3];
    }
    EXPECT_EQ(lines[5004], "members: 5000, bytes: 5000, errors: 0");
}

TEST(manifest, says_that_its_list_is_not_whole_if_no_file_can_be_created) {
    const auto without_descriptors = [] {
        test_archive archive;
        manifest list;
        {
            few_fds_left few(0);
            manifest_begin(&list, archive.handle());
        }
        store(archive.handle(), "first", "x");
        manifest_store(&list, archive.handle());
        return archive.finish();
    };
    const std::vector<std::string> lines = lines_of(without_descriptors());
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines[3], "the list above is not whole: Too many open files");
    EXPECT_EQ(lines[5], "members: 1, bytes: 1, errors: 0");
    EXPECT_EQ(lines[6], "complete");
}

namespace {

// Stores a manifest of 1000 members in `stream`.
int store_a_long_list(int stream) {
    tar_handle* t = tar_new(stream, nullptr);
    manifest list;
    manifest_begin(&list, t);
    for (int i = 0; i < 1000; i++) {
        store(t, "member", "x");
    }
    manifest_store(&list, t);
    return tar_close(t);
}

}  // namespace

TEST(manifest, needs_no_space_in_tmp) {
    SKIP_WITHOUT_PRIVATE_WORLD();
    unique_fd stream = memory_file();
    const int status = run_in_private_world([&stream] {
        if (mount("tmpfs", "/tmp", "tmpfs", 0, "size=4k") != 0 || !install_file("/tmp/full", noise(4096))) {
            return 3;
        }
        return store_a_long_list(stream.get());
    });
    ASSERT_EQ(status, 0);
    const std::vector<std::string> lines = lines_of(tar_read(content_of(stream.get())));
    EXPECT_EQ(lines.size(), 1006u);
    EXPECT_EQ(lines[1004], "members: 1000, bytes: 1000, errors: 0");
}

TEST(manifest, that_cannot_grow_lists_whole_lines_and_says_that_some_are_missing) {
    test_pipe stream;
    std::string bytes;
    std::thread reader([&] { bytes = read_all(stream.out.get()); });
    const int status = run_in_child([&stream] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit small = {8192, 8192};
        return setrlimit(RLIMIT_FSIZE, &small) == 0 ? store_a_long_list(stream.in.get()) : 3;
    });
    stream.in.reset();
    reader.join();
    ASSERT_TRUE(exited_with(status, 0));
    const tar_listing listing = tar_read(bytes);
    EXPECT_EQ(listing.trouble, "");
    const std::vector<std::string> lines = lines_of(listing);
    ASSERT_GT(lines.size(), 107u);
    ASSERT_LT(lines.size(), 1000u);
    const size_t tail = lines.size() - 4;
    for (size_t i = 3; i < tail; i++) {
        ASSERT_TRUE(has_shape(lines[i], "            1    9.999999  member")) << lines[i];
    }
    EXPECT_EQ(lines[tail], "the list above is not whole: File too large");
    EXPECT_EQ(lines.back(), "complete");
}

TEST(manifest, leaves_no_descriptors) {
    const std::set<int> before = open_fds();
    (void)with_manifest([](tar_handle* t) { store(t, "first", "x"); });
    EXPECT_EQ(open_fds(), before);
}
