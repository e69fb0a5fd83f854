#include "proc/proc_socket.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/unit/support/temp_dir.h"

namespace {

constexpr const char* tcp_head =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode        "
    "    "
    "                                         \n";
constexpr const char* tcp6_head =
    "  sl  local_address                         remote_address                        st tx_queue rx_queue "
    "tr "
    "tm->when retrnsmt   uid  timeout inode\n";
constexpr const char* unix_head = "Num       RefCount Protocol Flags    Type St Inode Path\n";

std::string tcp_line(const std::string& local, const std::string& remote, const std::string& state,
                     const std::string& inode) {
    return "   0: " + local + " " + remote + " " + state +
           " 00000000:00000000 00:00000000 00000000     0        0 " + inode +
           " 1 0000000000000000 100 0 0 10 0\n";
}

std::string unix_line(const std::string& inode, const std::string& path) {
    return "0000000000000000: 00000002 00000000 00010000 0001 01 " + inode + path + "\n";
}

// An invented proc file system with only socket tables.
class proc_skinfo_lookup_at_tree : public testing::Test {
protected:
    void add(const std::string& name, const std::string& text) { dir_.write_file("net/" + name, text); }

    std::string lookup(unsigned long inode, size_t room = 256) {
        std::string buf(room + 1, '#');
        length_ = proc_skinfo_lookup_at(dir_.path().c_str(), inode, buf.data(), room);
        EXPECT_EQ(buf[room], '#') << "wrote past the buffer";
        return length_ == 0 ? (buf[0] == '#' ? "" : "touched") : std::string(buf.c_str());
    }

    temp_dir dir_;
    int length_ = 0;
};

}  // namespace

TEST_F(proc_skinfo_lookup_at_tree, ipv4_connection) {
    add("tcp", tcp_head + tcp_line("0100007F:0050", "0700000A:9D78", "01", "81234"));
    EXPECT_EQ(lookup(81234), "[127.0.0.1:80 -> 10.0.0.7:40312][TCP_ESTABLISHED]");
    EXPECT_EQ(length_, 49);
}

TEST_F(proc_skinfo_lookup_at_tree, listening_socket) {
    add("tcp", tcp_head + tcp_line("00000000:0050", "00000000:0000", "0A", "5"));
    EXPECT_EQ(lookup(5), "[0.0.0.0:80 -> 0.0.0.0:0][TCP_LISTEN]");
}

TEST_F(proc_skinfo_lookup_at_tree, every_state_has_its_name) {
    const std::vector<std::string> names = {
        "DESTROYED",      "TCP_ESTABLISHED", "TCP_SYN_SENT",  "TCP_SYN_RECV",
        "TCP_FIN_WAIT1",  "TCP_FIN_WAIT2",   "TCP_TIME_WAIT", "TCP_CLOSE",
        "TCP_CLOSE_WAIT", "TCP_LAST_ACK",    "TCP_LISTEN",    "TCP_CLOSING",
    };
    std::string text = tcp_head;
    for (size_t state = 0; state < 16; state++) {
        char number[8];
        snprintf(number, sizeof number, "%02zX", state);
        text += tcp_line("00000000:0001", "00000000:0002", number, std::to_string(1000 + state));
    }
    add("tcp", text);
    for (size_t state = 0; state < 16; state++) {
        std::string name = state < names.size() ? names[state] : "(null)";
        EXPECT_EQ(lookup(1000 + state), "[0.0.0.0:1 -> 0.0.0.0:2][" + name + "]");
    }
}

TEST_F(proc_skinfo_lookup_at_tree, mapped_ipv6_connection) {
    add("tcp6", tcp6_head + tcp_line("0000000000000000FFFF00000100007F:0050",
                                     "0000000000000000FFFF00000100007F:9D78", "01", "77"));
    EXPECT_EQ(lookup(77), "[0:0:0:0:0:ffff:7f00:1:80 -> 0:0:0:0:0:ffff:7f00:1:40312][TCP_ESTABLISHED]");
    EXPECT_EQ(length_, 74);
}

TEST_F(proc_skinfo_lookup_at_tree, ipv6_groups_are_not_shortened) {
    add("tcp6", tcp6_head + tcp_line("B80D01200A00000000000000010020FE:01BB",
                                     "00000000000000000000000000000000:0000", "0A", "78"));
    EXPECT_EQ(lookup(78), "[2001:db8:0:a:0:0:fe20:1:443 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
}

TEST_F(proc_skinfo_lookup_at_tree, unix_socket_with_a_path) {
    add("unix", unix_head + unix_line("  17", " /run/it") + unix_line("18", " @abstract") +
                    unix_line("19", " /with blank "));
    EXPECT_EQ(lookup(17), "[/run/it]");
    EXPECT_EQ(lookup(18), "[@abstract]");
    EXPECT_EQ(lookup(19), "[/with blank ]");
}

TEST_F(proc_skinfo_lookup_at_tree, unix_socket_without_a_path_has_no_text) {
    add("unix", unix_head + unix_line("17", "") + unix_line("18", " /other"));
    EXPECT_EQ(lookup(17), "");
}

TEST_F(proc_skinfo_lookup_at_tree, tables_are_searched_in_order) {
    add("tcp", tcp_line("00000000:0004", "00000000:0000", "0A", "9"));
    add("tcp6", tcp_line("00000000000000000000000000000000:0006", "00000000000000000000000000000000:0000",
                         "0A", "9") +
                    tcp_line("00000000000000000000000000000000:0007", "00000000000000000000000000000000:0000",
                             "0A", "10"));
    add("unix", unix_line("9", " /nine") + unix_line("10", " /ten") + unix_line("11", " /eleven"));
    EXPECT_EQ(lookup(9), "[0.0.0.0:4 -> 0.0.0.0:0][TCP_LISTEN]");
    EXPECT_EQ(lookup(10), "[0:0:0:0:0:0:0:0:7 -> 0:0:0:0:0:0:0:0:0][TCP_LISTEN]");
    EXPECT_EQ(lookup(11), "[/eleven]");
}

TEST_F(proc_skinfo_lookup_at_tree, missing_tables_are_skipped) {
    EXPECT_EQ(lookup(1), "");
    add("unix", unix_line("1", " /one"));
    EXPECT_EQ(lookup(1), "[/one]");
}

TEST_F(proc_skinfo_lookup_at_tree, inode_must_be_the_same_number) {
    add("tcp", tcp_line("00000000:0004", "00000000:0000", "0A", "812345"));
    add("unix", unix_line("812345", " /x"));
    EXPECT_EQ(lookup(81234), "");
    EXPECT_EQ(lookup(12345), "");
}

TEST_F(proc_skinfo_lookup_at_tree, header_lines_are_lines_with_inode_zero) {
    add("tcp", tcp_head);
    EXPECT_EQ(lookup(0), "[0.0.0.0:0 -> 0.0.0.0:0][DESTROYED]");
}

TEST_F(proc_skinfo_lookup_at_tree, long_lines_count_as_several) {
    // The 256th byte begins a line of its own, which here is a whole one.
    std::string first = unix_line("20", " /" + std::string(300, 'a'));
    add("unix", first.substr(0, 255) + unix_line("21", " /hidden"));
    EXPECT_EQ(lookup(21), "[/hidden]");
    add("unix", first);
    EXPECT_EQ(lookup(20).size(), strlen("[/]") + 108);
}

TEST_F(proc_skinfo_lookup_at_tree, piece_of_a_long_line_has_255_bytes) {
    std::string line = " 2 3 4 5 6 20 /path";
    line.insert(0, std::string(255 - line.size(), '1'));
    add("unix", line + "\n");
    EXPECT_EQ(lookup(20), "[/path]");
    add("unix", line + "name\n");
    EXPECT_EQ(lookup(20), "[/path]");
    line.pop_back();
    add("unix", line + "\n");
    EXPECT_EQ(lookup(20), "[/pat]");
}

TEST_F(proc_skinfo_lookup_at_tree, last_line_may_lack_its_newline) {
    std::string line = unix_line("22", " /last");
    line.pop_back();
    add("unix", line);
    EXPECT_EQ(lookup(22), "[/last]");
    add("unix", "0: 1 2 3 4 5 23");
    EXPECT_EQ(lookup(23), "");
}

TEST_F(proc_skinfo_lookup_at_tree, short_and_empty_lines_are_skipped) {
    add("tcp", "\n\nshort\n" + tcp_line("00000000:0004", "00000000:0000", "0A", "30"));
    add("unix", "\n \n1 2 3\n" + unix_line("31", " /x"));
    EXPECT_EQ(lookup(30), "[0.0.0.0:4 -> 0.0.0.0:0][TCP_LISTEN]");
    EXPECT_EQ(lookup(31), "[/x]");
    EXPECT_EQ(lookup(0), "");
}

TEST_F(proc_skinfo_lookup_at_tree, text_is_cut_but_its_whole_length_returned) {
    add("tcp", tcp_line("0100007F:0050", "0700000A:9D78", "01", "1"));
    add("unix", unix_line("2", " /run/it"));
    EXPECT_EQ(lookup(1, 10), "[127.0.0.");
    EXPECT_EQ(length_, 49);
    EXPECT_EQ(lookup(2, 4), "[/r");
    EXPECT_EQ(length_, 9);
}

TEST_F(proc_skinfo_lookup_at_tree, finds_one_among_thousands) {
    std::string text = tcp_head;
    for (int i = 0; i < 5000; i++) {
        text += tcp_line("0100007F:0050", "0700000A:9D78", "01", std::to_string(100000 + i));
    }
    add("tcp", text);
    EXPECT_NE(lookup(100000), "");
    EXPECT_NE(lookup(104999), "");
    EXPECT_EQ(lookup(105000), "");
}
