#include "archive/member_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "common/safe_io.h"
#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/tar_reader.h"

namespace {

// A handle for a borrowed descriptor.
struct test_output {
    explicit test_output(int fd) : tar(tar_new(fd, nullptr)) {}
    test_output(const test_output&) = delete;
    test_output& operator=(const test_output&) = delete;
    ~test_output() { tar_abandon(tar); }
    tar_handle* tar;
};

}  // namespace

TEST(member_size, is_at_most_INT_MAX) {
    EXPECT_EQ(member_size(0), 0);
    EXPECT_EQ(member_size(INT_MAX), INT_MAX);
    EXPECT_EQ(member_size(int64_t{INT_MAX} + 1), INT_MAX);
    EXPECT_EQ(member_size(int64_t{3} << 30), INT_MAX);
    EXPECT_EQ(member_size(INT64_MAX), INT_MAX);
}

TEST(member_copy, stops_at_the_promised_size_of_a_file_that_has_grown) {
    for (size_t size : {0, 1, 16383, 16384, 16385, 40000}) {
        unique_fd input = memory_file_with(std::string(50000, 'x'));
        test_archive output;
        EXPECT_EQ(member_copy(output.handle(), input.get(), static_cast<int64_t>(size)), size);
        EXPECT_EQ(output.bytes(), std::string(size, 'x'));
    }
}

TEST(member_copy, returns_the_length_of_a_shorter_file) {
    unique_fd input = memory_file_with("short");
    test_archive output;
    EXPECT_EQ(member_copy(output.handle(), input.get(), 100), 5);
    EXPECT_EQ(output.bytes(), "short");
}

TEST(member_copy, read_error_counts_as_end_of_file) {
    unique_fd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    test_archive output;
    EXPECT_EQ(member_copy(output.handle(), folder.get(), 100), 0);
    EXPECT_EQ(output.bytes(), "");
}

TEST(member_copy, stops_if_the_reader_has_gone) {
    ignore_broken_pipes();
    unique_fd input = memory_file_with("text");
    test_pipe pipe;
    pipe.out.reset();
    test_output output(pipe.in.get());
    EXPECT_EQ(member_copy(output.tar, input.get(), 4), -1);
    EXPECT_EQ(output.tar->error, EPIPE);
}

TEST(member_copy, does_not_count_a_block_that_could_not_be_written) {
    unique_fd input = memory_file_with(std::string(40000, 'x'));
    unique_fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    test_output output(full.get());
    EXPECT_EQ(member_copy(output.tar, input.get(), 40000), 0);
    EXPECT_EQ(lseek(input.get(), 0, SEEK_CUR), 40000) << "the copy continues to the end";
    EXPECT_EQ(output.tar->error, ENOSPC);
}

TEST(member_store, stores_a_file_from_its_beginning) {
    unique_fd input = memory_file_with("whole");
    lseek(input.get(), 3, SEEK_SET);
    test_archive output;
    EXPECT_EQ(member_store(output.handle(), "name", input.get()), 0);
    tar_listing listing = output.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), std::vector<std::string>{"name"});
    EXPECT_EQ(listing.entries[0].data, "whole");
}

TEST(member_store, pads_a_file_that_shrinks_meanwhile_with_zeros) {
    constexpr size_t size = 300000;
    constexpr size_t left = 1000;
    unique_fd input = memory_file_with(std::string(size, 'x'));
    test_pipe pipe;
    std::string all;
    // The reader cuts the file after the header. The pipe is smaller than the file, so the copy is not
    // complete then.
    std::thread reader([&] {
        char header[512];
        EXPECT_EQ(safe_read(pipe.out.get(), header, sizeof header), 512);
        EXPECT_EQ(ftruncate(input.get(), left), 0);
        all = std::string(header, sizeof header) + read_all(pipe.out.get());
    });
    tar_handle* tar = tar_new(pipe.in.get(), nullptr);
    EXPECT_EQ(member_store(tar, "name", input.get()), 0);
    EXPECT_EQ(tar_close(tar), 0);
    pipe.in.reset();
    reader.join();
    tar_listing listing = tar_read(all);
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_EQ(listing.entries[0].data.size(), size);
    EXPECT_EQ(listing.entries[0].data.back(), '\0');
}

TEST(member_store, stores_INT_MAX_bytes_of_a_file_of_3_gib) {
    ignore_broken_pipes();
    unique_fd input = memory_file();
    ASSERT_EQ(ftruncate(input.get(), int64_t{3} << 30), 0);
    test_pipe pipe;
    std::string header(512, '\0');
    std::thread reader([&] {
        EXPECT_EQ(safe_read(pipe.out.get(), header.data(), 512), 512);
        pipe.out.reset();
    });
    test_output output(pipe.in.get());
    EXPECT_EQ(member_store(output.tar, "name", input.get()), 1);
    reader.join();
    EXPECT_EQ(header.substr(124, 11), "17777777777");
}
