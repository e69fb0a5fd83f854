// The capture of packets.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/sockets.h"

namespace archiveview {

struct conversation {
    // "tcp", "udp", "icmp", "icmp6", "arp"; "132", the number of another one over IP; "0x88cc", an ethertype;
    // "llc"; "fragment": of an IP packet, except for the one that completes it, which counts as the packet
    std::string protocol;
    std::string a,
        b;  // "192.0.2.1:80", "[2001:db8::1]:80", without ports "192.0.2.1"; `a` sent the first packet. Of
            // ethertypes the addresses of the cards
    uint64_t packets = 0, bytes = 0;  // both directions; bytes of the frames as they were on the wire
    double first_seconds = 0, last_seconds = 0;  // since the first packet of the capture
    int pid = 0;                                 // a process of this device that has one of the ends, or 0
    std::string process;
    int peer_pid = 0;  // if both ends are of this device, the process that has the other one
    std::string peer_process;
    // TCP. A frame that several interfaces show counts once here.
    uint64_t retransmissions = 0, resets = 0, zero_windows = 0;
    uint64_t connects = 0;  // SYN without ACK
    uint64_t accepts = 0;   // SYN with ACK
    uint64_t refusals = 0;  // RST in answer to a SYN, which is no reset; or ICMP said that it is unreachable
};

struct asked_name {
    std::string name,
        server;  // of ARP and neighbour solicitation: the address that is asked for, and who asks
    uint64_t questions = 0, answers = 0;
    int pid = 0;
    std::string process = {};
    std::string asker = {};  // of a name: the end that asked first, "192.0.2.1:40000"
};

struct capture_facts {
    bool is_present = false;
    std::string damage;    // why the rest was not read; empty if it was
    uint64_t packets = 0;  // without padding records
    uint64_t bytes = 0;    // on the wire
    bool has_true_lengths = false;
    bool is_full = false;  // its size was reached before its time
    double seconds = 0;    // from the first packet to the last
    std::map<std::string, uint64_t> packets_by_protocol;
    std::vector<conversation> conversations;  // the largest first
    uint64_t left_out = 0;                    // packets of conversations beyond conversation_limit
    std::vector<asked_name> dns, arp;
};

void capture_parse(capture_facts* facts, std::string_view bytes);

// Fills in the owners of conversations and questions.
void capture_join(capture_facts* facts, const socket_list& sockets, const process_list& processes);

}  // namespace archiveview
