#include "oops/flash_device.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// Pages can be read from any file.
flash_device device_on(const std::string& path) {
    flash_device device;
    device.fd = unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(device.fd);
    return device;
}

}  // namespace

TEST(flash_open, names_the_failed_call_and_leaves_its_errno) {
    temp_dir folder;
    EXPECT_STREQ(flash_open(folder.path("missing").c_str()).failed_call, "open");
    EXPECT_EQ(errno, ENOENT);
    const std::string plain = folder.write_file("plain", "x");
    EXPECT_STREQ(flash_open(plain.c_str()).failed_call, "MEMGETINFO");
    EXPECT_EQ(errno, ENOTTY);
}

TEST(flash_open, failure_returns_an_empty_device_and_leaves_no_descriptor_open) {
    temp_dir folder;
    std::string plain = folder.write_file("plain", "x");
    int before = count_open_fds();
    flash_opened opened = flash_open(plain.c_str());
    EXPECT_NE(opened.failed_call, nullptr);
    EXPECT_FALSE(opened.device.fd);
    EXPECT_EQ(opened.device.size, 0u);
    EXPECT_EQ(count_open_fds(), before);
}

TEST(flash_read_page, reads_the_page_of_that_number) {
    temp_dir folder;
    flash_device device =
        device_on(folder.write_file("image", std::string(4096, 'a') + std::string(4096, 'b')));
    std::vector<uint8_t> bytes(flash_page_size);
    ASSERT_TRUE(flash_read_page(device, 1, bytes.data()));
    EXPECT_EQ(bytes, std::vector<uint8_t>(flash_page_size, 'b'));
    ASSERT_TRUE(flash_read_page(device, 0, bytes.data()));
    EXPECT_EQ(bytes, std::vector<uint8_t>(flash_page_size, 'a'));
}

TEST(flash_read_page, partial_or_missing_page_is_not_read) {
    temp_dir folder;
    flash_device device = device_on(folder.write_file("image", std::string(4096 + 4095, 'a')));
    std::vector<uint8_t> bytes(flash_page_size);
    EXPECT_FALSE(flash_read_page(device, 1, bytes.data()));
    EXPECT_FALSE(flash_read_page(device, 2, bytes.data()));
    EXPECT_FALSE(flash_read_page(device, uint64_t{1} << 20, bytes.data()));
    EXPECT_TRUE(flash_read_page(device, 0, bytes.data()));
}

TEST(flash_read_page, finds_a_page_beyond_4_gib) {
    temp_dir folder;
    std::string path = folder.write_file("image", "");
    constexpr uint64_t page = 0x100001;  // 4 GiB and one page
    {
        unique_fd sparse(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        std::string content(flash_page_size, 'z');
        ssize_t written =
            pwrite(sparse.get(), content.data(), content.size(), static_cast<off_t>(page * flash_page_size));
        if (written < 0 && (errno == EFBIG || errno == ENOSPC)) {
            GTEST_SKIP() << "needs a file system with sparse files of 4 GiB";
        }
        ASSERT_EQ(written, static_cast<ssize_t>(flash_page_size));
    }
    flash_device device = device_on(path);
    std::vector<uint8_t> bytes(flash_page_size);
    ASSERT_TRUE(flash_read_page(device, page, bytes.data()));
    EXPECT_EQ(bytes, std::vector<uint8_t>(flash_page_size, 'z'));
}

TEST(flash_read_page, pipe_is_not_read) {
    test_pipe pipe;
    flash_device device;
    device.fd = std::move(pipe.out);
    std::vector<uint8_t> bytes(flash_page_size);
    EXPECT_FALSE(flash_read_page(device, 0, bytes.data()));
}
