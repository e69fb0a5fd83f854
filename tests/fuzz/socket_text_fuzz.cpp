// Parses any bytes as each table of sockets, in both looks and byte orders: sockets are kept once, and those
// that have an owner are found by their addresses.
#include <stdint.h>

#include <set>
#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/sockets.h"
#include "tools/archiveview/limits.h"

using namespace archiveview;

namespace {

constexpr std::string_view protocols[] = {"tcp",  "tcp6", "udp",    "udp6",   "raw",
                                          "raw6", "unix", "packet", "netlink"};
constexpr int owner = 5;

// A process that has the first sockets of the list.
process_list process_with(const socket_list& sockets) {
    process_list list;
    std::string links;
    for (size_t i = 0; i < sockets.sockets.size() && i < 3; i++) {
        links +=
            "fd/" + std::to_string(i) + " -> socket:[" + std::to_string(sockets.sockets[i].inode) + "]\n";
    }
    processes_add_look_file(&list, 1, owner, "links", links);
    processes_finish(&list, 5);
    return list;
}

void check_table(std::string_view protocol, std::string_view text, bool is_big_endian) {
    socket_list list;
    const std::string_view half = text.substr(0, text.size() / 2);
    sockets_add_table(&list, protocol, 0, half, is_big_endian);
    sockets_add_table(&list, protocol, 1, text, is_big_endian);
    sockets_join(&list, process_with(list));
    std::set<uint64_t> inodes;
    for (const socket_facts& socket : list.sockets) {
        require(socket.protocol == protocol && (socket.in_first_look || socket.in_second_look));
        require(socket.inode == 0 || inodes.insert(socket.inode).second);
        require(socket.local.find('\n') == std::string::npos && socket.local.size() <= 2 * name_limit + 100);
        const int found = sockets_owner(list, protocol, socket.local, socket.remote);
        require(found == 0 || found == owner);
        require(socket.pid == 0 || protocol == "unix" || found == owner);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const std::string_view protocol : protocols) {
        for (const bool is_big_endian : {false, true}) {
            check_table(protocol, text, is_big_endian);
        }
    }
    return 0;
}
