#include "archive/process_links.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "common/unique_fd.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/few_fds.h"
#include "tests/unit/support/temp_dir.h"

namespace {

// The folder of a process.
struct link_fixture {
    temp_dir folder;

    link_fixture() { folder.make_folder("fd"); }
    void link(const std::string& name, const std::string& target) const {
        EXPECT_EQ(symlink(target.c_str(), folder.path(name).c_str()), 0) << name;
    }
};

struct outcome {
    int error;
    int descriptors;
    std::string text;
};

outcome read_links(const temp_dir& folder) {
    unique_fd dir(open(folder.path().c_str(), O_PATH | O_CLOEXEC));
    auto links = std::make_unique<process_links>();
    process_links_read(dir.get(), links.get());
    return {links->error, links->descriptors, {links->text, links->length}};
}

std::string last_line(const std::string& text) {
    return text.substr(text.rfind('\n', text.size() - 2) + 1);
}

constexpr char cut_line[] = "(the list is cut here)\n";

}  // namespace

TEST(process_links_read, has_a_line_for_each_link) {
    link_fixture process;
    process.link("exe", "/usr/bin/x");
    process.link("cwd", "/");
    process.link("fd/7", "socket:[123]");
    outcome seen = read_links(process.folder);
    EXPECT_EQ(seen.error, 0);
    EXPECT_EQ(seen.descriptors, 1);
    EXPECT_EQ(seen.text, "exe -> /usr/bin/x\ncwd -> /\nfd/7 -> socket:[123]\n");
}

TEST(process_links_read, missing_links_have_no_line) {
    link_fixture process;
    outcome seen = read_links(process.folder);
    EXPECT_EQ(seen.error, 0);
    EXPECT_EQ(seen.descriptors, 0);
    EXPECT_EQ(seen.text, "");
}

TEST(process_links_read, escapes_control_characters_and_backslashes) {
    link_fixture process;
    process.link("exe", "/a\nb\tc\\d\x7f\x01 \xc3\xa4");
    EXPECT_EQ(read_links(process.folder).text, "exe -> /a\\012b\\011c\\134d\\177\\001 \xc3\xa4\n");
}

TEST(process_links_read, keeps_the_longest_targets) {
    link_fixture process;
    const std::string longest(PATH_MAX - 1, '\n');
    process.link("fd/3", longest);
    std::string expected = "fd/3 -> ";
    for (size_t i = 0; i < longest.size(); i++) {
        expected += "\\012";
    }
    EXPECT_TRUE(read_links(process.folder).text == expected + "\n");
}

TEST(process_links_read, long_list_is_cut_but_its_descriptors_are_counted) {
    link_fixture process;
    const std::string target(3000, 't');
    for (int fd = 0; fd < 60; fd++) {
        process.link("fd/" + std::to_string(fd), target);
    }
    outcome seen = read_links(process.folder);
    EXPECT_EQ(seen.error, 0);
    EXPECT_EQ(seen.descriptors, 60);
    EXPECT_LE(seen.text.size(), 102400u);
    EXPECT_GT(seen.text.size(), 80000u);
    EXPECT_EQ(last_line(seen.text), cut_line);
    EXPECT_EQ(seen.text.find(cut_line), seen.text.size() - sizeof cut_line + 1) << "once";
}

TEST(process_links_read, list_of_short_links_fills_the_bound) {
    link_fixture process;
    const std::string target(500, 't');
    for (int fd = 0; fd < 250; fd++) {
        process.link("fd/" + std::to_string(fd), target);
    }
    outcome seen = read_links(process.folder);
    EXPECT_EQ(seen.descriptors, 250);
    EXPECT_LE(seen.text.size(), 102400u);
    EXPECT_GT(seen.text.size(), 102400u - 2900) << "the space of a line of escaped characters";
    EXPECT_EQ(last_line(seen.text), cut_line);
}

TEST(process_links_read, number_of_descriptors_is_unknown_if_they_cannot_be_listed) {
    temp_dir folder;
    EXPECT_EQ(symlink("/x", folder.path("exe").c_str()), 0);
    outcome seen = read_links(folder);
    EXPECT_EQ(seen.error, ENOENT);
    EXPECT_EQ(seen.descriptors, -1);
    EXPECT_EQ(seen.text, "exe -> /x\n");
}

TEST(process_links_read, returns_the_error_of_a_link_and_reads_the_others) {
    link_fixture process;
    process.folder.write_file("exe", "no link");
    process.link("fd/1", "/one");
    outcome seen = read_links(process.folder);
    EXPECT_EQ(seen.error, EINVAL);
    EXPECT_EQ(seen.text, "fd/1 -> /one\n");
}

TEST(process_links_read, needs_one_free_descriptor) {
    link_fixture process;
    process.link("fd/1", "/one");
    unique_fd dir(open(process.folder.path().c_str(), O_PATH | O_CLOEXEC));
    auto links = std::make_unique<process_links>();
    {
        few_fds_left one(1);
        process_links_read(dir.get(), links.get());
        EXPECT_EQ(links->error, 0);
        EXPECT_EQ(links->descriptors, 1);
    }
    few_fds_left none(0);
    process_links_read(dir.get(), links.get());
    EXPECT_EQ(links->error, EMFILE);
    EXPECT_EQ(links->descriptors, -1);
}
