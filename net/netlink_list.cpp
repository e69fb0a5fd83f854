#include "net/netlink_list.h"

#include <errno.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

namespace {

constexpr size_t piece_size = 16384;  // the kernel makes pieces of at most 8 KiB, unless one entry is larger
constexpr int incomplete = -1;        // more pieces follow

struct listing {
    void (*add)(void* context, const nlmsghdr* entry);
    void* context;
    unsigned count;
};

// Adds the entries of one piece. Returns 0 at the end of the list, an errno, or `incomplete`.
int take_piece(const void* piece, int left, listing* to) {
    const void* at = piece;
    while (left > 0) {
        const auto* entry = static_cast<const nlmsghdr*>(at);
        const int length = left < NLMSG_HDRLEN ? 0 : static_cast<int>(entry->nlmsg_len);
        if (length < NLMSG_HDRLEN || length > left) {
            return EBADMSG;
        }
        if (entry->nlmsg_type == NLMSG_DONE || entry->nlmsg_type == NLMSG_ERROR) {
            // Both begin with a negative errno; the end of an old kernel's list may have none.
            return entry->nlmsg_len >= NLMSG_LENGTH(sizeof(int))
                       ? -*static_cast<const int*>(NLMSG_DATA(entry))
                       : 0;
        }
        if (to->count++ == netlink_entry_limit) {
            return EFBIG;
        }
        to->add(to->context, entry);
        at = static_cast<const char*>(at) + NLMSG_ALIGN(length);
        left -= NLMSG_ALIGN(length);
    }
    return incomplete;
}

}  // namespace

int netlink_list(int fd, uint16_t request, void (*add)(void*, const nlmsghdr*), void* context) {
    struct {
        nlmsghdr head;
        rtgenmsg body;
    } message = {};
    message.head.nlmsg_len = NLMSG_LENGTH(sizeof message.body);
    message.head.nlmsg_type = request;
    message.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    if (send(fd, &message, sizeof message, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
        return errno;
    }
    listing to = {add, context, 0};
    errno = EBADMSG;  // if the socket ends
    alignas(nlmsghdr) char piece[piece_size];
    for (ssize_t got; (got = recv(fd, piece, sizeof piece, MSG_DONTWAIT)) > 0;) {
        const int result = take_piece(piece, static_cast<int>(got), &to);
        if (result != incomplete) {
            return result;
        }
    }
    return errno;
}
