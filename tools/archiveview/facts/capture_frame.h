// Dissects a frame.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/archiveview/facts/capture_fragments.h"
#include "tools/archiveview/facts/capture_records.h"

namespace archiveview {

struct tcp_segment {
    uint32_t sequence = 0, acknowledged = 0;
    uint32_t bytes = 0;  // of its data
    uint16_t window = 0;
    bool syn = false, ack = false, fin = false, rst = false;
};

// ARP and neighbour solicitation.
struct neighbour_message {
    bool is_question = false;
    std::string asked;  // the address whose owner is asked for, or answers
    std::string asker;
};

struct frame_ends {
    std::string a, b;  // sender and receiver, as in `conversation`
};

struct frame_facts {
    std::string protocol;  // as in `conversation`
    frame_ends ends;
    std::optional<tcp_segment> tcp;
    std::vector<uint8_t> dns;  // a message of a name server, or to one
    std::optional<neighbour_message> neighbour;
    std::optional<frame_ends> refused;  // of the TCP segment that an ICMP message could not deliver
    // A hash of all that stays the same if another interface shows the frame again, or the loopback shows
    // it as sent and as received. 0 if the frame has none.
    uint64_t view = 0;
    bool has_id = false;  // a packet that is sent again has another hash
};

// Frames that cannot be dissected have their ethertype as protocol. Never throws.
frame_facts frame_dissect(const capture_record& record, fragment_table* fragments);

}  // namespace archiveview
