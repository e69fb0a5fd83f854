#include "proc/socket_diag.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace {

constexpr size_t list_size = 32768;                                 // buffer for one piece of a list
constexpr uint32_t listed_states = 0xffe & ~(1U << TCP_TIME_WAIT);  // sockets in TIME_WAIT have no inode
constexpr size_t answer_size = 2048;  // buffer for one answer, which has about 100 bytes without extensions

// Sends one request. The kernel has queued its answer, or the first piece of it, when send returns.
template <typename Request>
bool ask(int diag_fd, const Request& request, uint16_t flags = 0) {
    struct {
        nlmsghdr head;
        Request body;
    } message = {};
    message.head.nlmsg_len = sizeof message;
    message.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.head.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    message.body = request;
    return send(diag_fd, &message, sizeof message, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof message);
}

ssize_t receive_some(int diag_fd, void* buffer, size_t size) {
    ssize_t got;
    do {
        got = recv(diag_fd, buffer, size, MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    return got;
}

// Receives one answer into `buffer` (answer_size bytes). Returns its header, which at least `size` bytes
// follow; null for an error.
const nlmsghdr* receive(int diag_fd, void* buffer, size_t size) {
    ssize_t got = receive_some(diag_fd, buffer, answer_size);
    const nlmsghdr* head = static_cast<const nlmsghdr*>(buffer);
    if (got < static_cast<ssize_t>(NLMSG_HDRLEN) || head->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        head->nlmsg_len > static_cast<size_t>(got) || head->nlmsg_len < NLMSG_LENGTH(size)) {
        return nullptr;
    }
    return head;
}

// Sets the path as /proc/net/unix lists it: NULs become '@', except the one that ends a path.
void set_path(socket_row* row, const char* name, size_t length) {
    row->has_path = true;
    if (length > 0 && name[0] != '\0') {
        length--;
    }
    length = std::min(length, sizeof row->path - 1);
    for (size_t i = 0; i < length; i++) {
        row->path[i] = name[i] ? name[i] : '@';
    }
    row->path[length] = '\0';
    row->path[strcspn(row->path, "\n")] = '\0';
}

// The row of one answer about a TCP socket.
socket_row row_of(const inet_diag_msg& answer, socket_row::table table) {
    socket_row row;
    row.from = table;
    row.inode = answer.idiag_inode;
    row.state = answer.idiag_state;
    row.local_port = ntohs(answer.id.idiag_sport);
    row.remote_port = ntohs(answer.id.idiag_dport);
    memcpy(row.local, answer.id.idiag_src, sizeof row.local);
    memcpy(row.remote, answer.id.idiag_dst, sizeof row.remote);
    return row;
}

enum class listing : uint8_t { goes_on, complete, broken };

// Adds the sockets of one piece of a list.
listing take_piece(const char* at, size_t left, socket_row::table table,
                   void (*add)(void*, const socket_row&), void* context) {
    while (left >= NLMSG_HDRLEN) {
        nlmsghdr head;
        memcpy(&head, at, sizeof head);
        if (head.nlmsg_len < NLMSG_HDRLEN || head.nlmsg_len > left) {
            return listing::broken;
        }
        if (head.nlmsg_type == NLMSG_DONE) {
            return listing::complete;
        }
        inet_diag_msg answer;
        if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || head.nlmsg_len < NLMSG_LENGTH(sizeof answer)) {
            return listing::broken;
        }
        memcpy(&answer, at + NLMSG_HDRLEN, sizeof answer);
        if (answer.idiag_inode != 0) {
            add(context, row_of(answer, table));
        }
        size_t whole = std::min<size_t>(NLMSG_ALIGN(head.nlmsg_len), left);
        at += whole;
        left -= whole;
    }
    return listing::goes_on;
}

int family_of(socket_row::table table) {
    return table == socket_row::table::tcp4 ? AF_INET : AF_INET6;
}

}  // namespace

unique_fd socket_diag_open() {
    return unique_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
}

socket_answer socket_diag_refresh_tcp(int diag_fd, socket_row* row) {
    inet_diag_req_v2 request = {};
    request.sdiag_family = static_cast<uint8_t>(family_of(row->from));
    request.sdiag_protocol = IPPROTO_TCP;
    request.idiag_states = ~0U;
    request.id.idiag_sport = htons(row->local_port);
    request.id.idiag_dport = htons(row->remote_port);
    memcpy(request.id.idiag_src, row->local, sizeof row->local);
    memcpy(request.id.idiag_dst, row->remote, sizeof row->remote);
    request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    alignas(nlmsghdr) char buffer[answer_size];
    const nlmsghdr* head = ask(diag_fd, request) ? receive(diag_fd, buffer, sizeof(inet_diag_msg)) : nullptr;
    if (!head) {
        return socket_answer::unknown;
    }
    inet_diag_msg answer;
    memcpy(&answer, NLMSG_DATA(head), sizeof answer);
    if (answer.idiag_inode != row->inode || answer.idiag_family != request.sdiag_family) {
        return socket_answer::unknown;
    }
    row->state = answer.idiag_state;
    return socket_answer::found;
}

socket_answer socket_diag_refresh_unix(int diag_fd, socket_row* row) {
    unix_diag_req request = {};
    request.sdiag_family = AF_UNIX;
    request.udiag_states = ~0U;
    request.udiag_ino = static_cast<uint32_t>(row->inode);
    request.udiag_show = UDIAG_SHOW_NAME;
    request.udiag_cookie[0] = ~0U;
    request.udiag_cookie[1] = ~0U;
    alignas(nlmsghdr) char buffer[answer_size];
    const nlmsghdr* head = ask(diag_fd, request) ? receive(diag_fd, buffer, sizeof(unix_diag_msg)) : nullptr;
    if (!head) {
        return socket_answer::unknown;
    }
    unix_diag_msg answer;
    memcpy(&answer, NLMSG_DATA(head), sizeof answer);
    if (answer.udiag_ino != row->inode) {
        return socket_answer::unknown;
    }
    const char* at = static_cast<const char*>(NLMSG_DATA(head)) + NLMSG_ALIGN(sizeof answer);
    size_t left = head->nlmsg_len - NLMSG_LENGTH(NLMSG_ALIGN(sizeof answer));
    row->has_path = false;
    while (left >= sizeof(rtattr)) {
        rtattr attribute;
        memcpy(&attribute, at, sizeof attribute);
        if (attribute.rta_len < sizeof attribute || attribute.rta_len > left) {
            break;
        }
        if (attribute.rta_type == UNIX_DIAG_NAME) {
            set_path(row, at + RTA_LENGTH(0), attribute.rta_len - RTA_LENGTH(0));
        }
        size_t whole = std::min<size_t>(RTA_ALIGN(attribute.rta_len), left);
        at += whole;
        left -= whole;
    }
    return socket_answer::found;
}

bool socket_diag_list_tcp(int diag_fd, socket_row::table table, void (*add)(void*, const socket_row&),
                          void* context) {
    inet_diag_req_v2 request = {};
    request.sdiag_family = static_cast<uint8_t>(family_of(table));
    request.sdiag_protocol = IPPROTO_TCP;
    request.idiag_states = listed_states;
    if (!ask(diag_fd, request, NLM_F_DUMP)) {
        return false;
    }
    listing state;
    do {
        alignas(nlmsghdr) char buffer[list_size];
        ssize_t got = receive_some(diag_fd, buffer, sizeof buffer);
        state = got > 0 ? take_piece(buffer, static_cast<size_t>(got), table, add, context) : listing::broken;
    } while (state == listing::goes_on);
    return state == listing::complete;
}
