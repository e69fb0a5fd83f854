// Tables of sockets as the kernel writes them.
#pragma once

#include <string>
#include <string_view>

#include "tools/archiveview/facts/sockets.h"

inline const std::string inet_heading =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n";

struct inet_values {
    std::string local = "0100007F:0050", remote = "00000000:0000", state = "0A";
    std::string queues = "00000000:00000000";
    std::string inode = "4711";
    std::string rest = "1 0000000040bbddd6 100 0 0 10 0";
};

inline std::string inet_line(const inet_values& v) {
    return "   0: " + v.local + " " + v.remote + " " + v.state + " " + v.queues +
           " 00:00000000 00000000     0        0 " + v.inode + " " + v.rest + "\n";
}

// The sockets of a table of the second look.
inline archiveview::socket_list list_of(std::string_view protocol, const std::string& text) {
    archiveview::socket_list list;
    sockets_add_table(&list, protocol, 1, text);
    return list;
}
