// Fragments of IP packets.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <unordered_map>

namespace archiveview {

// Tells which fragment completes its packet: that one is counted with the packet's ports, as other tools do.
class fragment_table {
public:
    struct fragment {
        uint32_t offset = 0;  // bytes
        uint32_t bytes = 0;
        bool is_last = false;
    };
    // The ports of the packet, a copy of its first bytes.
    static constexpr size_t head_bytes = 4;
    using head = std::string;

    // `key` names the packet; `first` is what a fragment with offset 0 begins with. Returns whether the
    // packet is complete, and then sets `*first`. A packet that comes again begins anew.
    bool add(const std::string& key, const fragment& part, head* first);

private:
    struct packet {
        std::map<uint32_t, uint32_t> parts;  // sizes by offset
        uint64_t bytes = 0;
        uint64_t total = 0;  // 0: not known yet
        head first;
    };
    std::unordered_map<std::string, packet> packets_;
};

}  // namespace archiveview
