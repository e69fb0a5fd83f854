// The worker thread that streams a packet capture.
#pragma once

#include <stdint.h>

struct pcap_request {
    static constexpr int interface_capacity = 48;
    int client_fd;
    int32_t duration;                    // seconds; 0: the capture's default
    int32_t total_size;                  // bytes; 0: the capture's default
    char interface[interface_capacity];  // ended by a NUL; empty: the capture's default
};

// Thread entry; takes over the pcap_request (from malloc) and its connection.
void* run_pcap_request(void* record);
