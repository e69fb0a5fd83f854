#include "archive/member_copy.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "common/unique_fd.h"

namespace {

unique_fd file_with(const std::string& content) {
    unique_fd file(memfd_create("input", MFD_CLOEXEC));
    EXPECT_EQ(write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
    lseek(file.get(), 0, SEEK_SET);
    return file;
}

std::string content_of(const unique_fd& file) {
    std::string content(static_cast<size_t>(lseek(file.get(), 0, SEEK_END)), '\0');
    EXPECT_EQ(pread(file.get(), content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
    return content;
}

}  // namespace

TEST(member_copy, stops_at_the_promised_size_though_the_file_has_grown) {
    for (size_t size : {0, 1, 16383, 16384, 16385, 40000}) {
        unique_fd input = file_with(std::string(50000, 'x'));
        unique_fd output = file_with("");
        EXPECT_EQ(member_copy(input.get(), output.get(), static_cast<int64_t>(size)), size);
        EXPECT_EQ(content_of(output), std::string(size, 'x'));
    }
}

TEST(member_copy, says_how_much_a_shorter_file_had) {
    unique_fd input = file_with("short");
    unique_fd output = file_with("");
    EXPECT_EQ(member_copy(input.get(), output.get(), 100), 5);
    EXPECT_EQ(content_of(output), "short");
}

TEST(member_copy, takes_a_read_error_for_the_end) {
    unique_fd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    unique_fd output = file_with("");
    EXPECT_EQ(member_copy(folder.get(), output.get(), 100), 0);
    EXPECT_EQ(content_of(output), "");
}

TEST(member_copy, ends_when_the_reader_has_gone) {
    signal(SIGPIPE, SIG_IGN);
    unique_fd input = file_with("text");
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    unique_fd output(ends[1]);
    close(ends[0]);
    EXPECT_EQ(member_copy(input.get(), output.get(), 4), -1);
}

TEST(member_copy, does_not_count_a_block_that_could_not_be_written) {
    unique_fd input = file_with(std::string(40000, 'x'));
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(member_copy(input.get(), full.get(), 40000), 0);
    EXPECT_EQ(lseek(input.get(), 0, SEEK_CUR), 40000) << "it goes on to the end all the same";
}
