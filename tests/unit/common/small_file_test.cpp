#include "common/small_file.h"

#include <sys/ioctl.h>

#include <string>
#include <thread>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

struct small_file : testing::Test {
    temp_dir folder;
    std::string path = folder.write_file("file", "0123456789");
    std::string buffer = std::string(16, '#');

    ssize_t read_up_to(size_t size) { return small_file_read(AT_FDCWD, path.c_str(), buffer.data(), size); }
};

}  // namespace

TEST_F(small_file, is_read_to_its_end) {
    EXPECT_EQ(read_up_to(16), 10);
    EXPECT_EQ(buffer, "0123456789######");
}

TEST_F(small_file, is_read_up_to_the_size_of_the_buffer) {
    EXPECT_EQ(read_up_to(4), 4);
    EXPECT_EQ(buffer, "0123############");
    EXPECT_EQ(read_up_to(0), 0);
}

TEST_F(small_file, is_found_relative_to_a_directory) {
    const unique_fd directory(open(folder.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(small_file_read(directory.get(), "file", buffer.data(), 16), 10);
}

TEST_F(small_file, returns_0_if_it_is_empty) {
    path = folder.write_file("empty", "");
    EXPECT_EQ(read_up_to(16), 0);
}

TEST_F(small_file, that_is_missing_sets_errno) {
    path = folder.path("missing");
    EXPECT_EQ(read_up_to(16), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read_up_to(0), -1);
}

TEST_F(small_file, that_cannot_be_read_sets_errno) {
    path = folder.path();
    EXPECT_EQ(read_up_to(16), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(small_file, is_joined_from_short_reads) {
    path = folder.path("pipe");
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    std::thread writer([this] {
        const unique_fd in(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        for (char letter : {'a', 'b', 'c'}) {
            EXPECT_EQ(write(in.get(), &letter, 1), 1);
            int unread = 1;
            EXPECT_TRUE(eventually([&] { return ioctl(in.get(), FIONREAD, &unread) == 0 && unread == 0; }));
        }
    });
    EXPECT_EQ(read_up_to(16), 3);
    writer.join();
    EXPECT_EQ(buffer.substr(0, 4), "abc#");
}

TEST_F(small_file, is_closed) {
    const std::set<int> before = open_fds();
    EXPECT_EQ(read_up_to(16), 10);
    path = folder.path();
    EXPECT_EQ(read_up_to(16), -1);
    EXPECT_EQ(open_fds(), before);
}

TEST_F(small_file, as_text_ends_with_a_nul) {
    EXPECT_EQ(small_file_text(path.c_str(), buffer.data(), 16), 10);
    EXPECT_STREQ(buffer.c_str(), "0123456789");
    EXPECT_EQ(small_file_text(path.c_str(), buffer.data(), 4), 3);
    EXPECT_STREQ(buffer.c_str(), "012");
}

TEST_F(small_file, as_text_is_empty_if_it_is_missing) {
    EXPECT_EQ(small_file_text(folder.path("missing").c_str(), buffer.data(), 16), -1);
    EXPECT_STREQ(buffer.c_str(), "");
}
