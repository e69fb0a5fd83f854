#include "common/replace_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <iterator>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/temp_dir.h"

namespace {

std::string content(const std::string& path) {
    unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file ? content_of(file.get()) : "<none>";
}

mode_t mode_of(const std::string& path) {
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 07777;
}

size_t files_in(const temp_dir& dir) {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir.path()), {}));
}

}  // namespace

TEST(replace_file, sets_the_permissions_whatever_the_umask_is) {
    temp_dir dir;
    mode_t before = umask(077);
    for (mode_t mode : {0600, 0644, 0666}) {
        std::string path = dir.path(std::to_string(mode));
        EXPECT_EQ(replace_file(path.c_str(), "x", mode), 0);
        EXPECT_EQ(mode_of(path), mode);
        EXPECT_EQ(content(path), "x");
    }
    umask(before);
    EXPECT_EQ(files_in(dir), 3u);
}

TEST(replace_file, keeps_the_old_file_if_it_fails) {
    temp_dir dir;
    std::string folder = dir.make_folder("folder");
    EXPECT_EQ(replace_file(folder.c_str(), "x", 0600), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(files_in(dir), 1u);
}
