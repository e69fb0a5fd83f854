#include "proc/socket_table.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using table = socket_row::table;

}  // namespace

TEST(socket_parse_line, finds_no_inode_if_the_line_is_too_short) {
    socket_row row;
    // The inode is in column 91.
    std::string line =
        "   0: 00000000:0004 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 5 1 0\n";
    EXPECT_TRUE(socket_parse_line(table::tcp4, line.substr(0, 92), &row));
    EXPECT_FALSE(socket_parse_line(table::tcp4, line.substr(0, 91), &row));
    EXPECT_FALSE(socket_parse_line(table::tcp4, "", &row));
    EXPECT_FALSE(socket_parse_line(table::unix_domain, "1 2 3 4 5 6 ", &row));
    unsigned long inode = 7;
    EXPECT_FALSE(socket_parse_inode(table::tcp6, line.substr(0, 100), &inode));
    EXPECT_TRUE(socket_parse_inode(table::unix_domain, "1 2 3 4 5 6 70x", &inode));
    EXPECT_EQ(inode, 70u);
}
