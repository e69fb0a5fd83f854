#include "archive/member_fdmap.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/unit/archive/archive_fixture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/tar_reader.h"

TEST(proc_append_fdmap, lists_the_descriptors_of_a_process) {
    unique_fd zero(open("/dev/zero", O_RDONLY | O_CLOEXEC));
    test_archive archive("top/");
    proc_append_fdmap(archive.handle(), "fdmap", getpid(), archive.handle()->fd);
    tar_addfile(archive.handle(), "next", 0);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.names(), (std::vector<std::string>{"top/fdmap", "top/next"}));
    const std::string& text = listing.entries[0].data;
    EXPECT_EQ(text.find("total 0\n"), 0u);
    EXPECT_NE(text.find(" " + std::to_string(zero.get()) + " -> /dev/zero\n"), std::string::npos) << text;
}

TEST(proc_append_fdmap, stores_the_error_of_ls_for_a_process_that_has_gone) {
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    test_archive archive;
    proc_append_fdmap(archive.handle(), "fdmap", gone, archive.handle()->fd);
    tar_listing listing = archive.finish();
    EXPECT_EQ(listing.trouble, "");
    ASSERT_EQ(listing.entries.size(), 1u);
    EXPECT_NE(listing.entries[0].data.find("/proc/" + std::to_string(gone) + "/fd"), std::string::npos);
}

TEST(proc_append_fdmap, leaves_no_children_and_no_descriptors) {
    EXPECT_TRUE(exited_with(run_in_child([] {
                                test_archive archive;
                                std::set<int> before = open_fds();
                                proc_append_fdmap(archive.handle(), "fdmap", getpid(), archive.handle()->fd);
                                return open_fds() == before && has_no_children() ? 0 : 1;
                            }),
                            0));
}
