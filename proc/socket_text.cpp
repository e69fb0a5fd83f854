#include "proc/socket_text.h"

#include <arpa/inet.h>
#include <stdio.h>

#include <iterator>

namespace {

constexpr const char* state_names[] = {
    "DESTROYED",     "TCP_ESTABLISHED", "TCP_SYN_SENT",   "TCP_SYN_RECV", "TCP_FIN_WAIT1", "TCP_FIN_WAIT2",
    "TCP_TIME_WAIT", "TCP_CLOSE",       "TCP_CLOSE_WAIT", "TCP_LAST_ACK", "TCP_LISTEN",    "TCP_CLOSING",
};
static_assert(std::size(state_names) == 12);
constexpr const char* unnamed_state = "(null)";

const char* state_name(unsigned state) {
    return state < std::size(state_names) ? state_names[state] : unnamed_state;
}

int tcp4_text(const socket_row& row, char* buf, size_t len) {
    char local[INET_ADDRSTRLEN];
    char remote[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &row.local[0], local, sizeof local);
    inet_ntop(AF_INET, &row.remote[0], remote, sizeof remote);
    return snprintf(buf, len, "[%s:%d -> %s:%d][%s]", local, row.local_port, remote, row.remote_port,
                    state_name(row.state));
}

// The eight groups of an address, each followed by a ':'.
int groups_text(const uint32_t (&words)[4], char* buf, size_t len) {
    uint16_t groups[8];
    for (size_t word = 0; word < std::size(words); word++) {
        uint32_t value = htonl(words[word]);
        groups[2 * word] = static_cast<uint16_t>(value >> 16);
        groups[2 * word + 1] = static_cast<uint16_t>(value);
    }
    return snprintf(buf, len, "%x:%x:%x:%x:%x:%x:%x:%x:", groups[0], groups[1], groups[2], groups[3],
                    groups[4], groups[5], groups[6], groups[7]);
}

int tcp6_text(const socket_row& row, char* buf, size_t len) {
    char local[48];
    char remote[48];
    groups_text(row.local, local, sizeof local);
    groups_text(row.remote, remote, sizeof remote);
    return snprintf(buf, len, "[%s%d -> %s%d][%s]", local, row.local_port, remote, row.remote_port,
                    state_name(row.state));
}

}  // namespace

int socket_row_text(const socket_row& row, char* buf, size_t len) {
    switch (row.from) {
        case socket_row::table::tcp4:
            return tcp4_text(row, buf, len);
        case socket_row::table::tcp6:
            return tcp6_text(row, buf, len);
        default:
            return row.has_path ? snprintf(buf, len, "[%s]", row.path) : 0;
    }
}
