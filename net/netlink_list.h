// Lists the kernel's network tables (rtnetlink(7)).
#pragma once

#include <linux/netlink.h>
#include <stdint.h>

// A table with more entries is listed up to here.
constexpr unsigned netlink_entry_limit = 2000;

// Asks for a whole table (`request`: RTM_GETLINK, ...) and calls `add` with the message of each entry, whose
// length has been checked. `fd` (borrowed) is a new routing socket; -1 fails with EBADF. Never waits: the
// kernel has the answer when the request is sent. Returns 0, or the errno of the failure: EBADMSG for a
// malformed answer, EFBIG for a table above the limit. Entries before the failure have been added.
int netlink_list(int fd, uint16_t request, void (*add)(void* context, const nlmsghdr* entry), void* context);
