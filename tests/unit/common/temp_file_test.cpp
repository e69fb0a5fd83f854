#include "common/temp_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

TEST(temp_file, can_be_written_and_read_back) {
    temp_dir dir;
    unique_fd file = temp_file_unlinked(dir.path("stage-XXXXXX").c_str());
    ASSERT_TRUE(file);
    ASSERT_EQ(write(file.get(), "staged", 6), 6);
    EXPECT_EQ(content_of(file.get()), "staged");
}

TEST(temp_file, has_no_name) {
    temp_dir dir;
    unique_fd file = temp_file_unlinked(dir.path("stage-XXXXXX").c_str());
    ASSERT_TRUE(file);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    struct stat status = {};
    ASSERT_EQ(fstat(file.get(), &status), 0);
    EXPECT_EQ(status.st_nlink, 0u);
    EXPECT_TRUE(S_ISREG(status.st_mode));
}

TEST(temp_file, is_created_in_the_folder_of_its_template) {
    temp_dir dir;
    unique_fd file = temp_file_unlinked(dir.path("stage-XXXXXX").c_str());
    std::string link = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(file.get())).string();
    EXPECT_EQ(link.rfind(dir.path("stage-"), 0), 0u) << link;
    EXPECT_EQ(link.find("XXXXXX"), std::string::npos) << link;
}

TEST(temp_file, is_close_on_exec) {
    temp_dir dir;
    unique_fd file = temp_file_unlinked(dir.path("stage-XXXXXX").c_str());
    EXPECT_TRUE(is_cloexec(file.get()));
}

TEST(temp_file, is_readable_only_by_its_owner) {
    temp_dir dir;
    unique_fd file = temp_file_unlinked(dir.path("stage-XXXXXX").c_str());
    struct stat status = {};
    ASSERT_EQ(fstat(file.get(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(temp_file, does_not_change_its_template) {
    temp_dir dir;
    const std::string name = dir.path("stage-XXXXXX");
    const std::string copy = name;
    ASSERT_TRUE(temp_file_unlinked(name.c_str()));
    EXPECT_EQ(name, copy);
}

TEST(temp_file, missing_folder_gives_no_file) {
    temp_dir dir;
    int before = count_open_fds();
    errno = 0;
    EXPECT_FALSE(temp_file_unlinked(dir.path("gone/stage-XXXXXX").c_str()));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(count_open_fds(), before);
}

TEST(temp_file, unwritable_folder_gives_no_file) {
    temp_dir dir;
    const std::string name = dir.path("stage-XXXXXX");
    ASSERT_EQ(chmod(dir.path().c_str(), 0555), 0);
    int status = run_in_child([&name] {
        if (geteuid() == 0 && setuid(65534) != 0) {  // nothing is unwritable for root
            return 1;
        }
        errno = 0;
        return !temp_file_unlinked(name.c_str()) && errno == EACCES ? 0 : 2;
    });
    EXPECT_TRUE(exited_with(status, 0)) << status;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
}

TEST(temp_file, template_without_its_suffix_gives_no_file) {
    temp_dir dir;
    errno = 0;
    EXPECT_FALSE(temp_file_unlinked(dir.path("stage").c_str()));
    EXPECT_EQ(errno, EINVAL);
}

TEST(temp_file, name_that_is_too_long_gives_no_file) {
    temp_dir dir;
    errno = 0;
    EXPECT_FALSE(temp_file_unlinked((dir.path(std::string(300, 'x')) + "XXXXXX").c_str()));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}
