#include "archive/member_dmesg.h"

#include <errno.h>
#include <sys/syscall.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "tests/unit/archive/listed_archive.h"
#include "tests/unit/support/failing_calls.h"
#include "tests/unit/support/memory_limit.h"
#include "tests/unit/support/pipes.h"

namespace {

constexpr int read_all = 3;
constexpr int size_buffer = 10;

// The kernel's log in these tests: it leaves out the oldest records that do not fit whole.
struct fake_log {
    std::vector<std::string> records;
    int buffer_size = 16384;
    int error = 0;  // of each read from that size on
    int failing_size = 0;
    std::vector<int> reads;  // the sizes of the buffers
    bool takes_memory = false;
    std::optional<scoped_memory_shortage> shortage = {};  // after a read
};
fake_log* kernel = nullptr;

int fake_klog(int action, char* bytes, int size) {
    if (action == size_buffer) {
        return kernel->buffer_size;
    }
    EXPECT_EQ(action, read_all);
    kernel->reads.push_back(size);
    if (kernel->error != 0 && size >= kernel->failing_size) {
        errno = kernel->error;
        return -1;
    }
    size_t first = kernel->records.size();
    size_t total = 0;
    while (first > 0 && total + kernel->records[first - 1].size() <= static_cast<size_t>(size)) {
        total += kernel->records[--first].size();
    }
    for (; first < kernel->records.size(); first++) {
        bytes = std::copy(kernel->records[first].begin(), kernel->records[first].end(), bytes);
    }
    if (kernel->takes_memory) {
        kernel->shortage.emplace(8192);
    }
    return static_cast<int>(total);
}

class dmesg : public testing::Test {
protected:
    dmesg() { kernel = &log_; }
    ~dmesg() override { kernel = nullptr; }

    // Fills the log with `count` records of `size` bytes each.
    void fill(int count, size_t size) {
        for (int i = 0; i < count; i++) {
            std::string record = "<6>[" + std::to_string(i) + "] ";
            record.append(size - record.size() - 1, 'x');
            log_.records.push_back(record + "\n");
        }
    }
    std::string whole_log() const {
        std::string all;
        for (const std::string& record : log_.records) {
            all += record;
        }
        return all;
    }
    tar_listing stored() {
        listed_archive archive;
        EXPECT_EQ(stream_dmesg_from(archive.handle(), fake_klog), 0);
        tar_listing listing = archive.finish();
        EXPECT_EQ(listing.trouble, "");
        return listing;
    }
    void expect_stored(const std::string& text, const std::string& errors = "") {
        const tar_listing listing = stored();
        ASSERT_EQ(listing.names(), (std::vector<std::string>{"dmesg.txt", "manifest.txt"}));
        EXPECT_EQ(listing.entries[0].data.size(), text.size());
        EXPECT_TRUE(listing.entries[0].data == text);
        EXPECT_EQ(manifest_errors(listing), errors);
    }
    void expect_nothing_stored(const std::string& errors) {
        const tar_listing listing = stored();
        EXPECT_EQ(listing.names(), std::vector<std::string>{"manifest.txt"});
        EXPECT_EQ(manifest_errors(listing), errors);
    }

    fake_log log_;
};

}  // namespace

TEST_F(dmesg, is_the_whole_log) {
    log_.records = {"<6>[    0.000000] one\n", "<3>[    1.000000] two\n"};
    expect_stored("<6>[    0.000000] one\n<3>[    1.000000] two\n");
    EXPECT_EQ(log_.reads, std::vector<int>{16384});
}

TEST_F(dmesg, begins_with_the_size_of_the_kernels_buffer) {
    log_.buffer_size = 100000;
    fill(10, 100);
    expect_stored(whole_log());
    EXPECT_EQ(log_.reads, std::vector<int>{100000});
}

TEST_F(dmesg, that_is_longer_than_the_buffer_is_read_with_a_larger_one) {
    fill(700, 100);
    expect_stored(whole_log());
    EXPECT_EQ(log_.reads, (std::vector<int>{16384, 32768, 65536, 131072}));
}

TEST_F(dmesg, is_whole_if_the_oldest_record_just_does_not_fit) {
    fill(8, 2047);
    log_.records.push_back("<6>123456789\n");
    expect_stored(whole_log());
    log_.records.clear();
    fill(9, 2047);
    expect_stored(whole_log());
}

TEST_F(dmesg, is_whole_if_it_fills_the_buffer_exactly) {
    fill(16, 1024);
    expect_stored(whole_log());
}

TEST_F(dmesg, above_16_mib_is_the_newest_part) {
    log_.buffer_size = 10 << 20;
    fill(17 * 256, 4096);
    const std::string all = whole_log();
    expect_stored(all.substr(all.size() - (16 << 20)), "dmesg.txt: File too large\n");
    EXPECT_EQ(log_.reads, (std::vector<int>{10 << 20, 16 << 20}));
}

TEST_F(dmesg, of_a_kernel_with_a_huge_buffer_is_limited_to_16_mib) {
    log_.buffer_size = 1 << 30;
    fill(3, 100);
    expect_stored(whole_log());
    EXPECT_EQ(log_.reads, std::vector<int>{16 << 20});
}

TEST_F(dmesg, that_is_empty_gives_no_member) {
    expect_nothing_stored("");
}

TEST_F(dmesg, without_permission_is_noted) {
    log_.buffer_size = -1;
    log_.error = EPERM;
    expect_nothing_stored("dmesg.txt: Operation not permitted\n");
    EXPECT_EQ(log_.reads.size(), 1u);
}

TEST_F(dmesg, that_fails_later_is_noted) {
    fill(200, 100);
    log_.error = EFAULT;
    log_.failing_size = 32768;
    expect_nothing_stored("dmesg.txt: Bad address\n");
}

TEST_F(dmesg, without_memory_is_noted) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    listed_archive archive;
    {
        scoped_memory_shortage little_left(8192);
        EXPECT_EQ(stream_dmesg_from(archive.handle(), fake_klog), 0);
    }
    const tar_listing listing = archive.finish();
    EXPECT_EQ(listing.names(), std::vector<std::string>{"manifest.txt"});
    EXPECT_EQ(manifest_errors(listing), "dmesg.txt: Cannot allocate memory\n");
    EXPECT_TRUE(log_.reads.empty());
}

TEST_F(dmesg, is_the_newest_part_if_memory_runs_out_later) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    log_.takes_memory = true;
    log_.buffer_size = 1 << 20;
    fill(2048, 1024);
    log_.reads.reserve(10);
    listed_archive archive;
    EXPECT_EQ(stream_dmesg_from(archive.handle(), fake_klog), 0);
    log_.shortage.reset();
    const tar_listing listing = archive.finish();
    ASSERT_EQ(listing.names(), (std::vector<std::string>{"dmesg.txt", "manifest.txt"}));
    EXPECT_TRUE(listing.entries[0].data == whole_log().substr(1 << 20));
    EXPECT_EQ(manifest_errors(listing), "dmesg.txt: Cannot allocate memory\n");
    EXPECT_EQ(log_.reads, std::vector<int>{1 << 20});
}

TEST_F(dmesg, returns_1_if_the_archive_cannot_be_written) {
    ignore_broken_pipes();
    fill(1, 100);
    test_pipe broken;
    broken.out.reset();
    tar_handle* t = tar_new(broken.in.get(), nullptr);
    EXPECT_EQ(stream_dmesg_from(t, fake_klog), 1);
    tar_abandon(t);
}

TEST(dmesg_of_this_machine, is_read_with_the_system_call) {
    test_archive archive;
    const int status = run_in_child([&] {
        if (!fail_calls({{SYS_syslog, ENOSYS}})) {
            return 77;
        }
        manifest list;
        manifest_begin(&list, archive.handle());
        const int result = stream_dmesg(archive.handle());
        manifest_store(&list, archive.handle());
        return result;
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "this kernel cannot filter system calls";
    }
    EXPECT_TRUE(exited_with(status, 0));
    EXPECT_EQ(manifest_errors(tar_read(archive.bytes())), "dmesg.txt: Function not implemented\n");
}
