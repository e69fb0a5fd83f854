#include "proc/proc_fd.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "proc/socket_cache.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/pipes.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// An invented process whose descriptors are links.
class proc_fd_tree : public testing::Test {
protected:
    void SetUp() override { dir_.make_folder("5/fd"); }
    void add(int fd, const std::string& target) {
        ASSERT_EQ(symlink(target.c_str(), dir_.path("5/fd/" + std::to_string(fd)).c_str()), 0);
    }
    const char* root() const { return dir_.path().c_str(); }
    std::string describe(int fd, size_t size = 256) {
        std::string buf(size + 1, '#');
        length_ = proc_fdinfo_lookup_at(root(), 5, fd, buf.data(), size);
        EXPECT_EQ(buf[size], '#') << "wrote past the buffer";
        return buf.c_str();
    }
    int count(int* sockets, int* pipes) const { return proc_nr_fd2_at(root(), 5, sockets, pipes); }

    temp_dir dir_;
    int length_ = 0;
};

using proc_fdinfo_lookup_tree = proc_fd_tree;
using proc_fdlist_tree = proc_fd_tree;
using proc_nr_fd2_tree = proc_fd_tree;

std::string describe_own(int fd) {
    char buf[512] = "";
    int length = proc_fdinfo_lookup(getpid(), fd, buf, sizeof buf);
    EXPECT_EQ(length, static_cast<int>(strlen(buf)));
    return buf;
}

}  // namespace

TEST_F(proc_fdinfo_lookup_tree, is_the_link_s_target) {
    add(3, "/var/log/messages");
    add(4, "pipe:[4711]");
    EXPECT_EQ(describe(3), "/var/log/messages");
    EXPECT_EQ(length_, 17);
    EXPECT_EQ(describe(4), "pipe:[4711]");
}

TEST_F(proc_fdinfo_lookup_tree, socket_is_followed_by_its_endpoints) {
    add(3, "socket:[81234]");
    add(4, "socket:[5]");
    dir_.write_file("net/unix", "Num\n0: 2 0 10000 1 1 81234 /run/it\n");
    EXPECT_EQ(describe(3), "socket:[81234][/run/it]");
    EXPECT_EQ(length_, 23);
    EXPECT_EQ(describe(4), "socket:[5]");
    EXPECT_EQ(length_, 10);
}

TEST_F(proc_fdinfo_lookup_tree, only_a_socket_s_link_is_looked_up) {
    add(3, "/tmp/socket:[7]");
    add(4, "socket:7");
    dir_.write_file("net/unix", "0: 2 0 10000 1 1 7 /seven\n");
    EXPECT_EQ(describe(3), "/tmp/socket:[7]");
    EXPECT_EQ(describe(4), "socket:7");
}

TEST_F(proc_fdinfo_lookup_tree, missing_descriptor_gives_readlink_s_result) {
    EXPECT_EQ(describe(9), "");
    EXPECT_EQ(length_, -1);
}

TEST_F(proc_fdinfo_lookup_tree, buffer_of_one_gives_an_empty_description) {
    add(3, "/var/log/messages");
    EXPECT_EQ(describe(3, 1), "");
    EXPECT_LT(length_, 1);
}

TEST_F(proc_fdinfo_lookup_tree, target_is_cut_to_the_buffer) {
    add(3, "/var/log/messages");
    EXPECT_EQ(describe(3, 5), "/var");
    EXPECT_EQ(length_, 4);
}

TEST_F(proc_fdinfo_lookup_tree, endpoint_is_cut_and_counted) {
    add(3, "socket:[81234]");
    dir_.write_file("net/unix", "0: 2 0 10000 1 1 81234 /run/it\n");
    EXPECT_EQ(describe(3, 18), "socket:[81234][/r");
    EXPECT_EQ(length_, 23);
    EXPECT_EQ(describe(3, 15), "socket:[81234]");
    EXPECT_EQ(length_, 23);
}

TEST(proc_fdinfo_lookup, describes_files_pipes_and_sockets_of_a_process) {
    unique_fd file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(describe_own(file.get()), "/dev/null");
    test_pipe pipe;
    EXPECT_EQ(describe_own(pipe.in.get()).find("pipe:["), 0u);
    unique_fd udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    std::string text = describe_own(udp.get());
    EXPECT_EQ(text.find("socket:["), 0u);
    EXPECT_EQ(text.find(']'), text.size() - 1);
}

TEST(proc_fdinfo_lookup, describes_a_listening_socket) {
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener.get(), 1), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    std::string text = describe_own(listener.get());
    EXPECT_EQ(text.substr(text.find(']') + 1),
              "[0.0.0.0:" + std::to_string(ntohs(address.sin_port)) + " -> 0.0.0.0:0][TCP_LISTEN]");
    unique_socket_cache cache = socket_cache_new();
    char buf[512];
    for (int fd_dir : {-1, proc_fd_dir(getpid()).release()}) {
        unique_fd closed_again(fd_dir);
        proc_fdinfo_lookup(getpid(), listener.get(), buf, sizeof buf, {cache.get(), fd_dir});
        EXPECT_EQ(buf, text);
    }
}

TEST_F(proc_fdlist_tree, stores_the_numbers) {
    for (int fd : {0, 7, 255, 1023}) {
        add(fd, "/x");
    }
    int fds[8];
    ASSERT_EQ(proc_fdlist_at(root(), 5, fds, 8), 4);
    std::sort(fds, fds + 4);
    EXPECT_EQ(std::vector<int>(fds, fds + 4), (std::vector<int>{0, 7, 255, 1023}));
}

TEST_F(proc_fdlist_tree, stops_at_its_capacity) {
    for (int fd = 0; fd < 10; fd++) {
        add(fd, "/x");
    }
    int all[10];
    ASSERT_EQ(proc_fdlist_at(root(), 5, all, 10), 10);
    int three[] = {-1, -1, -1, -7};
    EXPECT_EQ(proc_fdlist_at(root(), 5, three, 3), 3);
    EXPECT_TRUE(std::equal(three, three + 3, all));
    EXPECT_EQ(three[3], -7);
    EXPECT_EQ(proc_fdlist_at(root(), 5, three, 0), 0);
}

TEST_F(proc_fdlist_tree, unknown_process_has_none) {
    int fds[4];
    EXPECT_EQ(proc_fdlist_at(root(), 6, fds, 4), 0);
}

TEST(proc_fdlist, lists_the_descriptors_of_a_process) {
    int fds[1024];
    int count = proc_fdlist(getpid(), fds, 1024);
    std::set<int> expected = open_fds();
    std::set<int> listed(fds, fds + count);
    for (int fd : expected) {
        EXPECT_TRUE(listed.contains(fd)) << fd;
    }
}

TEST_F(proc_nr_fd2_tree, counts_sockets) {
    add(0, "/dev/null");
    add(1, "socket:[1]");
    add(2, "socket:[2]");
    add(3, "/tmp/socket:[3]");
    int sockets = -5;
    int pipes = -5;
    EXPECT_EQ(count(&sockets, &pipes), 4);
    EXPECT_EQ(sockets, 2);
    EXPECT_EQ(pipes, 0);
}

TEST_F(proc_nr_fd2_tree, pipe_in_the_kernel_s_format_is_not_counted) {
    add(0, "pipe:[4711]");
    add(1, "pipe:[");
    int pipes = -5;
    EXPECT_EQ(count(nullptr, &pipes), 2);
    EXPECT_EQ(pipes, 1);
}

TEST_F(proc_nr_fd2_tree, reads_no_link_without_counters) {
    // Files instead of links: readlink would fail on them.
    dir_.write_file("5/fd/0", "");
    dir_.write_file("5/fd/1", "");
    EXPECT_EQ(count(nullptr, nullptr), 2);
}

TEST_F(proc_nr_fd2_tree, unreadable_link_restarts_the_scan_a_limited_number_of_times) {
    dir_.write_file("5/fd/0", "");
    int sockets = -5;
    EXPECT_EQ(count(&sockets, nullptr), proc_fd_restarts + 1);
    EXPECT_EQ(sockets, 0);
}

TEST_F(proc_nr_fd2_tree, needs_only_one_free_descriptor_to_restart) {
    dir_.write_file("5/fd/0", "");
    const std::string root = dir_.path();
    int sockets = -5;
    int counted = -5;
    {
        // Calls no member of the fixture: a sanitizer's check of such a call needs descriptors.
        const few_fds_left only(1);
        counted = proc_nr_fd2_at(root.c_str(), 5, &sockets, nullptr);
    }
    EXPECT_EQ(counted, proc_fd_restarts + 1);
}

TEST_F(proc_nr_fd2_tree, unknown_process_has_none) {
    int sockets = -5;
    int pipes = -5;
    EXPECT_EQ(proc_nr_fd2_at(root(), 6, &sockets, &pipes), 0);
    EXPECT_EQ(sockets, 0);
    EXPECT_EQ(pipes, 0);
    EXPECT_EQ(proc_nr_fd2_at(root(), 6, nullptr, nullptr), 0);
}

TEST(proc_nr_fd2, ends_while_descriptors_come_and_go) {
    std::atomic<bool> done{false};
    std::thread opener([&done] {
        while (!done) {
            unique_fd one(open("/dev/null", O_RDONLY | O_CLOEXEC));
            unique_fd two(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        }
    });
    for (int i = 0; i < 200; i++) {
        int sockets = 0;
        EXPECT_GT(proc_nr_fd2(getpid(), &sockets, nullptr), 0);
    }
    done = true;
    opener.join();
}

TEST(proc_mem_pread, reads_memory_at_an_address) {
    static const char text[] = "somewhere";
    char got[10] = "";
    int64_t address = static_cast<int64_t>(reinterpret_cast<uintptr_t>(text));
    EXPECT_EQ(proc_mem_pread(getpid(), got, sizeof got, address), 10);
    EXPECT_STREQ(got, "somewhere");
    EXPECT_EQ(proc_mem_pread(getpid(), got, 4, address + 4), 4);
    EXPECT_EQ(std::string(got, 4), "wher");
}

TEST(proc_mem_pread, fails_at_unmapped_addresses_and_for_missing_processes) {
    char got[8];
    EXPECT_EQ(proc_mem_pread(getpid(), got, sizeof got, 0), -1);
    EXPECT_EQ(proc_mem_pread(getpid(), got, sizeof got, -4096), -1);
    EXPECT_EQ(proc_mem_pread(-1, got, sizeof got, 0), -1);
}

TEST(proc_fd_dir, can_be_used_until_the_process_ends) {
    pid_t child = fork_child([] { return static_cast<int>(pause()); });
    unique_fd dir = proc_fd_dir(child);
    EXPECT_TRUE(dir);
    EXPECT_TRUE(is_cloexec(dir.get()));
    char buf[256];
    EXPECT_GT(proc_fdinfo_lookup(child, STDIN_FILENO, buf, sizeof buf, {nullptr, dir.get()}), 0);
    EXPECT_EQ(proc_fdinfo_lookup(child, 999999, buf, sizeof buf, {nullptr, dir.get()}), -1);
    kill(child, SIGKILL);
    wait_status(child);
    EXPECT_EQ(proc_fdinfo_lookup(child, STDIN_FILENO, buf, sizeof buf, {nullptr, dir.get()}), -1);
    EXPECT_FALSE(proc_fd_dir(child));
}
