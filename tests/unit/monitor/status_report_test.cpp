#include "monitor/status_report.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/unit/monitor/fixture_tree.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/temp_dir.h"

namespace {

constexpr int no_namespace = 77;
constexpr int no_filters = 78;

// Publishes `text`. Returns 0 or an errno; -1 if memory runs out.
int publish(const std::string& path, const std::string& text) {
    status_report report;
    if (!status_report_begin(&report)) {
        return -1;
    }
    fwrite(text.data(), 1, text.size(), report.stream);
    return status_report_publish(&report, path.c_str());
}

std::string content(const std::string& path) {
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file ? content_of(file.get()) : "<none>";
}

using names = std::vector<std::string>;

// Runs `work` in a child with a mount namespace of its own. Skips the test if that is not allowed.
template <typename Work>
void with_own_mounts(Work work) {
    int status = run_in_child([&] {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            return no_namespace;
        }
        return work();
    });
    if (exited_with(status, no_namespace)) {
        GTEST_SKIP() << "needs a mount namespace";
    }
    EXPECT_TRUE(exited_with(status, 0)) << "failed check " << WEXITSTATUS(status);
}

}  // namespace

TEST(status_report, creates_a_missing_file) {
    temp_dir dir;
    EXPECT_EQ(publish(dir.path("status"), "all is well\n"), 0);
    EXPECT_EQ(content(dir.path("status")), "all is well\n");
    EXPECT_EQ(names_in(dir.path()), names{"status"});
}

TEST(status_report, replaces_a_longer_file) {
    temp_dir dir;
    std::string path = dir.write_file("status", std::string(10000, 'x'));
    EXPECT_EQ(publish(path, "short"), 0);
    EXPECT_EQ(content(path), "short");
    EXPECT_EQ(names_in(dir.path()), names{"status"});
}

TEST(status_report, may_be_empty_and_may_be_large) {
    temp_dir dir;
    EXPECT_EQ(publish(dir.path("empty"), ""), 0);
    EXPECT_EQ(content(dir.path("empty")), "");
    std::string large(3000000, 'y');
    EXPECT_EQ(publish(dir.path("large"), large), 0);
    EXPECT_EQ(content(dir.path("large")), large);
}

TEST(status_report, is_readable_by_its_owner_only) {
    temp_dir dir;
    ASSERT_EQ(publish(dir.path("status"), "x"), 0);
    struct stat status;
    ASSERT_EQ(stat(dir.path("status").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0600));
    EXPECT_EQ(status.st_nlink, 1U);
}

TEST(status_report, an_open_reader_keeps_the_earlier_file) {
    temp_dir dir;
    std::string path = dir.write_file("status", "earlier");
    unique_fd reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(publish(path, "later"), 0);
    EXPECT_EQ(content_of(reader.get()), "earlier");
    EXPECT_EQ(content(path), "later");
}

TEST(status_report, a_path_without_a_folder_is_in_the_working_directory) {
    temp_dir dir;
    int status = run_in_child([&] {
        if (chdir(dir.path().c_str()) != 0) {
            return 1;
        }
        return publish("status", "here") == 0 ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(names_in(dir.path()), names{"status"});
    EXPECT_EQ(content(dir.path("status")), "here");
}

TEST(status_report, replaces_a_link_but_not_its_target) {
    temp_dir dir;
    dir.write_file("precious", "precious");
    ASSERT_EQ(symlink("precious", dir.path("status").c_str()), 0);
    EXPECT_EQ(publish(dir.path("status"), "x"), 0);
    EXPECT_EQ(content(dir.path("precious")), "precious");
    EXPECT_EQ(content(dir.path("status")), "x");
}

TEST(status_report, a_missing_folder_is_an_error) {
    temp_dir dir;
    EXPECT_EQ(publish(dir.path("gone/status"), "x"), ENOENT);
    EXPECT_EQ(names_in(dir.path()), names{});
}

TEST(status_report, a_folder_at_the_path_is_an_error) {
    temp_dir dir;
    dir.make_folder("status");
    EXPECT_EQ(publish(dir.path("status"), "x"), EISDIR);
    EXPECT_EQ(names_in(dir.path()), names{"status"});
}

TEST(status_report, a_name_that_is_too_long_with_its_suffix_is_an_error) {
    temp_dir dir;
    EXPECT_EQ(publish(dir.path(std::string(250, 'n')), "x"), ENAMETOOLONG);
    EXPECT_EQ(names_in(dir.path()), names{});
}

TEST(status_report, a_full_folder_keeps_the_earlier_file) {
    temp_dir dir;
    with_own_mounts([&] {
        if (mount("none", dir.path().c_str(), "tmpfs", 0, "size=64k") != 0) {
            return no_namespace;
        }
        std::string path = dir.path("status");
        if (publish(path, "earlier") != 0) {
            return 1;
        }
        if (publish(path, std::string(200000, 'x')) != ENOSPC) {
            return 2;
        }
        if (content(path) != "earlier") {
            return 3;
        }
        return names_in(dir.path()) == names{"status"} ? 0 : 4;
    });
}

TEST(status_report, a_read_only_folder_keeps_the_earlier_file) {
    temp_dir dir;
    std::string path = dir.write_file("status", "earlier");
    with_own_mounts([&] {
        const char* folder = dir.path().c_str();
        if (mount(folder, folder, nullptr, MS_BIND, nullptr) != 0 ||
            mount(nullptr, folder, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            return no_namespace;
        }
        if (publish(path, "x") != EROFS) {
            return 1;
        }
        return content(path) == "earlier" ? 0 : 2;
    });
    EXPECT_EQ(names_in(dir.path()), names{"status"});
}

TEST(status_report, without_proc_it_is_written_under_its_temporary_name) {
    temp_dir dir;
    std::string path = dir.write_file("status", "earlier");
    with_own_mounts([&] {
        // Without /proc, an unnamed file cannot get a name.
        if (mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
            return no_namespace;
        }
        if (publish(path, "later") != 0 || content(path) != "later") {
            return 1;
        }
        if (names_in(dir.path()) != names{"status"}) {
            return 2;
        }
        if (publish(dir.path(), "x") == 0) {  // a folder, after the temporary file has been written
            return 3;
        }
        return names_in(dir.path()) == names{"status"} ? 0 : 4;
    });
}

TEST(status_report, does_not_sync_the_file) {
    temp_dir dir;
    int status = run_in_child([&] {
        if (!fail_calls({{SYS_fsync, EIO}, {SYS_fdatasync, EIO}, {SYS_sync, EIO}, {SYS_syncfs, EIO}})) {
            return no_filters;
        }
        return publish(dir.path("status"), "at once") == 0 ? 0 : 1;
    });
    if (exited_with(status, no_filters)) {
        GTEST_SKIP() << "needs seccomp";
    }
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(content(dir.path("status")), "at once");
}

TEST(status_report, leaves_no_descriptor_open) {
    temp_dir dir;
    int before = count_open_fds();
    publish(dir.path("status"), "x");
    publish(dir.path("gone/status"), "x");
    EXPECT_EQ(count_open_fds(), before);
}

TEST(status_report, a_report_that_is_not_published_leaves_nothing) {
    temp_dir dir;
    {
        status_report report;
        ASSERT_TRUE(status_report_begin(&report));
        fputs("never mind", report.stream);
    }
    EXPECT_EQ(names_in(dir.path()), names{});
}
