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
#include <string_view>

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

struct answer_buffer {
    alignas(nlmsghdr) char bytes[answer_size];
};

template <typename Message>
struct socket_answer {
    bool is_valid = false;
    Message message = {};
    std::string_view attributes;  // in the buffer
};

// Asks about one socket. An error, or an answer of another kind, is not valid.
template <typename Message, typename Request>
socket_answer<Message> ask_one(int diag_fd, const Request& request, answer_buffer* buffer) {
    socket_answer<Message> answer;
    ssize_t got = ask(diag_fd, request) ? receive_some(diag_fd, buffer->bytes, sizeof buffer->bytes) : -1;
    // The buffer is aligned; the compiler for MIPS warns about a direct cast.
    const auto* head = static_cast<const nlmsghdr*>(static_cast<const void*>(buffer->bytes));
    if (got < static_cast<ssize_t>(NLMSG_HDRLEN) || head->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        head->nlmsg_len > static_cast<size_t>(got) || head->nlmsg_len < NLMSG_SPACE(sizeof(Message))) {
        return answer;
    }
    memcpy(&answer.message, NLMSG_DATA(head), sizeof(Message));
    answer.attributes = {buffer->bytes + NLMSG_SPACE(sizeof(Message)),
                         head->nlmsg_len - NLMSG_SPACE(sizeof(Message))};
    answer.is_valid = true;
    return answer;
}

inet_diag_req_v2 tcp_request(socket_row::table table, uint32_t states) {
    inet_diag_req_v2 request = {};
    request.sdiag_family = table == socket_row::table::tcp4 ? AF_INET : AF_INET6;
    request.sdiag_protocol = IPPROTO_TCP;
    request.idiag_states = states;
    return request;
}

// Sets the path as /proc/net/unix lists it: NULs become '@', except the one that ends a path.
void set_path(socket_row* row, const char* name, size_t length) {
    row->has_path = true;
    if (length > 0 && name[0] != '\0') {
        length--;
    }
    length = std::min(length, sizeof row->path - 1);
    for (size_t i = 0; i < length; i++) {
        const char c = name[i] == '\n' ? '\0' : name[i];
        row->path[i] = name[i] ? c : '@';
    }
    row->path[length] = '\0';
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

enum class listing : uint8_t { incomplete, complete, broken };

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
    return listing::incomplete;
}

// Updates the row's path from the attributes of an answer.
void take_path(socket_row* row, std::string_view attributes) {
    row->has_path = false;
    rtattr head;
    while (attributes.size() >= sizeof head) {
        memcpy(&head, attributes.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > attributes.size()) {
            return;
        }
        if (head.rta_type == UNIX_DIAG_NAME) {
            set_path(row, attributes.data() + RTA_LENGTH(0), head.rta_len - RTA_LENGTH(0));
        }
        attributes.remove_prefix(std::min<size_t>(RTA_ALIGN(head.rta_len), attributes.size()));
    }
}

}  // namespace

unique_fd socket_diag_open() {
    return unique_fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
}

bool socket_diag_refresh_tcp(int diag_fd, socket_row* row) {
    inet_diag_req_v2 request = tcp_request(row->from, ~0U);
    request.id.idiag_sport = htons(row->local_port);
    request.id.idiag_dport = htons(row->remote_port);
    memcpy(request.id.idiag_src, row->local, sizeof row->local);
    memcpy(request.id.idiag_dst, row->remote, sizeof row->remote);
    request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    answer_buffer buffer;
    auto answer = ask_one<inet_diag_msg>(diag_fd, request, &buffer);
    if (!answer.is_valid || answer.message.idiag_inode != row->inode ||
        answer.message.idiag_family != request.sdiag_family) {
        return false;
    }
    row->state = answer.message.idiag_state;
    return true;
}

bool socket_diag_refresh_unix(int diag_fd, socket_row* row) {
    unix_diag_req request = {};
    request.sdiag_family = AF_UNIX;
    request.udiag_states = ~0U;
    request.udiag_ino = static_cast<uint32_t>(row->inode);
    request.udiag_show = UDIAG_SHOW_NAME;
    request.udiag_cookie[0] = ~0U;
    request.udiag_cookie[1] = ~0U;
    answer_buffer buffer;
    auto answer = ask_one<unix_diag_msg>(diag_fd, request, &buffer);
    if (!answer.is_valid || answer.message.udiag_ino != row->inode) {
        return false;
    }
    take_path(row, answer.attributes);
    return true;
}

bool socket_diag_list_tcp(int diag_fd, socket_row::table table, void (*add)(void*, const socket_row&),
                          void* context) {
    if (!ask(diag_fd, tcp_request(table, listed_states), NLM_F_DUMP)) {
        return false;
    }
    listing state;
    do {
        alignas(nlmsghdr) char buffer[list_size];
        ssize_t got = receive_some(diag_fd, buffer, sizeof buffer);
        state = got > 0 ? take_piece(buffer, static_cast<size_t>(got), table, add, context) : listing::broken;
    } while (state == listing::incomplete);
    return state == listing::complete;
}
