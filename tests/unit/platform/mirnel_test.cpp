#include "platform/mirnel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace std::string_view_literals;

struct line {
    std::string section;
    std::string key;
    std::string value;
    bool operator==(const line&) const = default;
};

using lines = std::vector<line>;

void PrintTo(const line& one, std::ostream* out) {
    *out << "[" << one.section << "] " << one.key << " = " << one.value;
}

class mirnel : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/mirnelXXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        path = folder + "/file.conf";
    }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(folder.c_str());
    }

    void write_file(std::string_view text) const {
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        close(fd);
    }

    lines read_all(std::string_view text) const {
        write_file(text);
        mirnel_cfg* cfg = mirnel_opencfg(path.c_str());
        EXPECT_NE(cfg, nullptr);
        lines found;
        mirnel_entry entry;
        while (cfg != nullptr && mirnel_getcfg(cfg, &entry) == 1) {
            found.push_back({entry.section, entry.key, entry.value});
        }
        mirnel_closecfg(cfg);
        return found;
    }

    std::string folder;
    std::string path;
};

}  // namespace

TEST_F(mirnel, entries_come_in_file_order_with_their_section) {
    EXPECT_EQ(read_all("[one]\na = 1\nb = 2\n[two]\na = 3\n"),
              (lines{{"one", "a", "1"}, {"one", "b", "2"}, {"two", "a", "3"}}));
}

TEST_F(mirnel, repeated_keys_come_each_time) {
    EXPECT_EQ(read_all("a = 1\na = 2\n"), (lines{{"", "a", "1"}, {"", "a", "2"}}));
}

TEST_F(mirnel, section_is_empty_before_the_first_section_line) {
    EXPECT_EQ(read_all("a = 1\n[s]\nb = 2\n"), (lines{{"", "a", "1"}, {"s", "b", "2"}}));
}

TEST_F(mirnel, empty_section_name_ends_a_section) {
    EXPECT_EQ(read_all("[s]\na = 1\n[]\nb = 2\n"), (lines{{"s", "a", "1"}, {"", "b", "2"}}));
}

TEST_F(mirnel, surrounding_blanks_are_removed) {
    EXPECT_EQ(read_all("  [ my section ]  \n\t key one \t=\t value one \t\nk=v\n"),
              (lines{{"my section", "key one", "value one"}, {"my section", "k", "v"}}));
}

TEST_F(mirnel, empty_and_comment_lines_are_skipped) {
    EXPECT_EQ(read_all("\n# a = 1\n; b = 2\n   # c = 3\n\t;d = 4\n \t \n#[s]\ne = 5\n"),
              (lines{{"", "e", "5"}}));
}

TEST_F(mirnel, comment_signs_within_a_value_are_kept) {
    EXPECT_EQ(read_all("a = 1 # one\nb = x;y\n"), (lines{{"", "a", "1 # one"}, {"", "b", "x;y"}}));
}

TEST_F(mirnel, quotes_around_a_value_are_removed) {
    EXPECT_EQ(
        read_all("a = \"one\"\nb = 'two'\nc = \" kept \"\nd = \"\"\ne = \"#5\"\n"),
        (lines{{"", "a", "one"}, {"", "b", "two"}, {"", "c", " kept "}, {"", "d", ""}, {"", "e", "#5"}}));
}

TEST_F(mirnel, unpaired_quotes_are_kept) {
    EXPECT_EQ(read_all("a = \"one\nb = two'\nc = \"three'\nd = \"\ne = say \"hi\"\nf = \"'six'\"\n"),
              (lines{{"", "a", "\"one"},
                     {"", "b", "two'"},
                     {"", "c", "\"three'"},
                     {"", "d", "\""},
                     {"", "e", "say \"hi\""},
                     {"", "f", "'six'"}}));
}

TEST_F(mirnel, value_may_be_empty_or_contain_equals_signs) {
    EXPECT_EQ(read_all("a =\nb = x=y=z\nc==\n"), (lines{{"", "a", ""}, {"", "b", "x=y=z"}, {"", "c", "="}}));
}

TEST_F(mirnel, malformed_lines_are_skipped) {
    EXPECT_EQ(read_all("[s]\n[broken\nkey\n= value\n=\n]\n[a = 1\nb = 2\n"), (lines{{"s", "b", "2"}}));
}

TEST_F(mirnel, text_after_a_section_is_ignored) {
    EXPECT_EQ(read_all("[s] # the section\na = 1\n"), (lines{{"s", "a", "1"}}));
}

TEST_F(mirnel, last_line_needs_no_newline) {
    EXPECT_EQ(read_all("a = 1\nb = 2"), (lines{{"", "a", "1"}, {"", "b", "2"}}));
    EXPECT_EQ(read_all("[s]"), lines{});
}

TEST_F(mirnel, carriage_returns_are_blanks) {
    EXPECT_EQ(read_all("[s]\r\na = 1\r\nb = \"2\"\r\n\r\nc = 3\r"),
              (lines{{"s", "a", "1"}, {"s", "b", "2"}, {"s", "c", "3"}}));
}

TEST_F(mirnel, nul_ends_its_line) {
    EXPECT_EQ(read_all("a = 1\0 2\nb\0 = 2\n\0c = 3\nd = 4\n"sv), (lines{{"", "a", "1"}, {"", "d", "4"}}));
}

TEST_F(mirnel, lines_may_be_of_any_length) {
    std::string key(70000, 'k');
    std::string value(300000, 'v');
    std::string section(5000, 's');
    std::string text = "[" + section + "]\n#" + value + "\n" + key + "=" + value + "\nshort = 1\n";
    EXPECT_EQ(read_all(text), (lines{{section, key, value}, {section, "short", "1"}}));
}

TEST_F(mirnel, empty_file_has_no_entries) {
    EXPECT_EQ(read_all(""), lines{});
}

TEST_F(mirnel, end_is_reported_again) {
    write_file("a = 1\n");
    mirnel_cfg* cfg = mirnel_opencfg(path.c_str());
    ASSERT_NE(cfg, nullptr);
    mirnel_entry entry;
    EXPECT_EQ(mirnel_getcfg(cfg, &entry), 1);
    EXPECT_EQ(mirnel_getcfg(cfg, &entry), 0);
    EXPECT_EQ(mirnel_getcfg(cfg, &entry), 0);
    mirnel_closecfg(cfg);
}

TEST_F(mirnel, entry_is_unchanged_at_the_end) {
    write_file("nothing here\n");
    mirnel_cfg* cfg = mirnel_opencfg(path.c_str());
    ASSERT_NE(cfg, nullptr);
    mirnel_entry entry = {"s", "k", "v"};
    EXPECT_EQ(mirnel_getcfg(cfg, &entry), 0);
    EXPECT_STREQ(entry.section, "s");
    EXPECT_STREQ(entry.key, "k");
    EXPECT_STREQ(entry.value, "v");
    mirnel_closecfg(cfg);
}

TEST_F(mirnel, two_files_may_be_open_at_once) {
    write_file("[s]\na = 1\nb = 2\n");
    mirnel_cfg* one = mirnel_opencfg(path.c_str());
    mirnel_cfg* two = mirnel_opencfg(path.c_str());
    ASSERT_NE(one, nullptr);
    ASSERT_NE(two, nullptr);
    mirnel_entry from_one;
    mirnel_entry from_two;
    EXPECT_EQ(mirnel_getcfg(one, &from_one), 1);
    EXPECT_EQ(mirnel_getcfg(one, &from_one), 1);
    EXPECT_EQ(mirnel_getcfg(two, &from_two), 1);
    mirnel_closecfg(two);
    EXPECT_STREQ(from_one.key, "b");
    EXPECT_STREQ(from_one.section, "s");
    mirnel_closecfg(one);
}

TEST_F(mirnel, missing_file_returns_null_and_sets_errno) {
    errno = 0;
    EXPECT_EQ(mirnel_opencfg(path.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(mirnel, folder_cannot_be_opened) {
    int next = dup(STDIN_FILENO);
    close(next);
    errno = 0;
    EXPECT_EQ(mirnel_opencfg(folder.c_str()), nullptr);
    EXPECT_EQ(errno, EISDIR);
    int after = dup(STDIN_FILENO);
    close(after);
    EXPECT_EQ(after, next) << "a descriptor was left open";
}

TEST_F(mirnel, file_is_closed_on_exec_and_on_close) {
    write_file("a = 1\n");
    int next = dup(STDIN_FILENO);
    close(next);
    mirnel_cfg* cfg = mirnel_opencfg(path.c_str());
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    mirnel_closecfg(cfg);
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
}

TEST_F(mirnel, closing_null_is_allowed) {
    mirnel_closecfg(nullptr);
}
