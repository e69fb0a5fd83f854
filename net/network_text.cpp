#include "net/network_text.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <strings.h>

#include <algorithm>
#include <iterator>

#include "common/unique_fd.h"
#include "net/netlink_list.h"

namespace {

constexpr unsigned attribute_types = 32;
constexpr in6_addr any_address = {};

// One entry: its attributes by type, null if it has none of that type.
struct entry_reader {
    heap_text* text;
    const rtattr* attributes[attribute_types] = {};

    entry_reader(heap_text* to, const void* first, int length) : text(to) {
        const void* at = first;
        for (int step; length > 0; length -= step) {
            const auto* each = static_cast<const rtattr*>(at);
            if (!RTA_OK(each, length)) {
                break;
            }
            if (each->rta_type < attribute_types) {
                attributes[each->rta_type] = each;
            }
            step = RTA_ALIGN(each->rta_len);
            at = static_cast<const char*>(at) + step;
        }
    }

    // The value of an attribute; null if it is missing or has less than `size` bytes.
    const void* value(unsigned type, size_t size) const {
        const rtattr* found = attributes[type];
        return found && RTA_PAYLOAD(found) >= size ? RTA_DATA(found) : nullptr;
    }
    unsigned number(unsigned type, unsigned otherwise) const {
        const void* found = value(type, sizeof otherwise);
        return found ? *static_cast<const unsigned*>(found) : otherwise;
    }
    const void* address(unsigned type, int family) const {
        return value(type, family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr));
    }

    void add_number(unsigned type, const char* name) const {
        if (attributes[type]) {
            heap_text_print(text, " %s %u", name, number(type, 0));
        }
    }
    void add_device(const char* before, unsigned index) const {
        char name[IF_NAMESIZE];
        if (if_indextoname(index, name)) {
            heap_text_print(text, "%s%s", before, name);
        } else {
            heap_text_print(text, "%s#%u", before, index);
        }
    }
    void add_address(const char* before, int family, const void* from) const {
        char shown[INET6_ADDRSTRLEN];
        if (from) {
            heap_text_print(text, "%s%s", before, inet_ntop(family, from, shown, sizeof shown));
        }
    }
    void add_mac(unsigned type) const {
        if (const auto* mac = static_cast<const unsigned char*>(value(type, 6))) {
            heap_text_print(text, " mac %02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
                            mac[4], mac[5]);
        }
    }
};

// rtnl_link_stats64 begins with these, each for rx and tx. An attribute is aligned like a 32-bit number.
constexpr char count_names[][8] = {"packets", "bytes", "errors", "dropped"};
struct [[gnu::packed, gnu::aligned(4)]] packed_count {
    unsigned long long value;
};

void add_interface(const entry_reader& from, const void* header) {
    const auto* link = static_cast<const ifinfomsg*>(header);
    from.add_device("", static_cast<unsigned>(link->ifi_index));
    heap_text_print(from.text, " index %d state %s%s", link->ifi_index,
                    link->ifi_flags & IFF_UP ? "up" : "down",
                    link->ifi_flags & IFF_PROMISC ? " promiscuous" : "");
    from.add_number(IFLA_MTU, "mtu");
    from.add_mac(IFLA_ADDRESS);
    const auto* count = static_cast<const packed_count*>(from.value(IFLA_STATS64, sizeof(packed_count[8])));
    for (unsigned i = 0; count && i < 8; i++) {
        heap_text_print(from.text, " %s_%s %llu", i % 2 ? "tx" : "rx", count_names[i / 2], count[i].value);
    }
}

void add_interface_address(const entry_reader& from, const void* header) {
    const auto* own = static_cast<const ifaddrmsg*>(header);
    from.add_device("", own->ifa_index);
    // On a point-to-point link, IFA_ADDRESS is the peer's.
    const void* local = from.address(IFA_LOCAL, own->ifa_family);
    from.add_address(" address ", own->ifa_family,
                     local ? local : from.address(IFA_ADDRESS, own->ifa_family));
    heap_text_print(from.text, "/%u", own->ifa_prefixlen);
}

// From RTN_BLACKHOLE on.
constexpr char route_types[][13] = {"blackhole ", "unreachable ", "prohibit ", "throw "};

void add_route(const entry_reader& from, const void* header) {
    const auto* route = static_cast<const rtmsg*>(header);
    if (const unsigned i = route->rtm_type - unsigned{RTN_BLACKHOLE}; i < std::size(route_types)) {
        heap_text_print(from.text, "%s", route_types[i]);
    }
    const void* to = from.address(RTA_DST, route->rtm_family);
    from.add_address("", route->rtm_family, to ? to : &any_address);
    heap_text_print(from.text, "/%u", route->rtm_dst_len);
    from.add_address(" via ", route->rtm_family, from.address(RTA_GATEWAY, route->rtm_family));
    if (from.attributes[RTA_VIA]) {
        heap_text_print(from.text, " via another family");
    }
    if (from.attributes[RTA_MULTIPATH]) {
        heap_text_print(from.text, " multipath");
    }
    if (const unsigned device = from.number(RTA_OIF, 0)) {
        from.add_device(" device ", device);
    }
    from.add_number(RTA_PRIORITY, "metric");
    const unsigned table = from.number(RTA_TABLE, route->rtm_table);
    if (table != RT_TABLE_MAIN) {
        heap_text_print(from.text, " table %u", table);
    }
}

// By the number of the bit, from 1.
constexpr char neighbour_states[][11] = {"none",  "incomplete", "reachable", "stale",    "delay",
                                         "probe", "failed",     "noarp",     "permanent"};

void add_neighbour(const entry_reader& from, const void* header) {
    const auto* neighbour = static_cast<const ndmsg*>(header);
    from.add_address("", neighbour->ndm_family, from.address(NDA_DST, neighbour->ndm_family));
    from.add_device(" device ", static_cast<unsigned>(neighbour->ndm_ifindex));
    from.add_mac(NDA_LLADDR);
    heap_text_print(from.text, " state %s", neighbour_states[ffs(neighbour->ndm_state & 0xff)]);
}

struct table_kind {
    uint16_t request;
    uint16_t header_size;
    void (*add)(const entry_reader& from, const void* header);
};

// In the order of network_table.
constexpr table_kind kinds[] = {
    {RTM_GETLINK, NLMSG_LENGTH(sizeof(ifinfomsg)), add_interface},
    {RTM_GETADDR, NLMSG_LENGTH(sizeof(ifaddrmsg)), add_interface_address},
    {RTM_GETROUTE, NLMSG_LENGTH(sizeof(rtmsg)), add_route},
    {RTM_GETNEIGH, NLMSG_LENGTH(sizeof(ndmsg)), add_neighbour},
};

// The kernel's own routes to this machine's addresses, which repeat the addresses.
bool is_local_route(network_table table, const void* header) {
    return table == network_table::routes && static_cast<const rtmsg*>(header)->rtm_table == RT_TABLE_LOCAL;
}

struct table_text {
    heap_text* text;
    network_table table;
};

void add_to(void* context, const nlmsghdr* entry) {
    const auto* to = static_cast<const table_text*>(context);
    network_text_add_entry(to->text, to->table, entry);
}

}  // namespace

void network_text_add_entry(heap_text* text, network_table table, const nlmsghdr* entry) {
    const table_kind& kind = kinds[static_cast<size_t>(table)];
    const int attributes_size = static_cast<int>(entry->nlmsg_len) - kind.header_size;
    if (attributes_size < 0) {
        return;
    }
    const auto* header = static_cast<const char*>(NLMSG_DATA(entry));
    const char family = *header;  // all headers begin with it
    const bool is_internet = family == AF_INET || family == AF_INET6;
    if (table == network_table::interfaces || (is_internet && !is_local_route(table, header))) {
        kind.add({text, header + kind.header_size - NLMSG_HDRLEN, attributes_size}, header);
        heap_text_print(text, "\n");
    }
}

int network_text_add(heap_text* text, network_table table) {
    const unique_fd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    table_text to = {text, table};
    return fd ? netlink_list(fd.get(), kinds[static_cast<size_t>(table)].request, add_to, &to) : errno;
}
