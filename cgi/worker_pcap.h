// The worker thread that streams a packet capture.
#pragma once

#include <stdint.h>

#include "common/unique_fd.h"

struct pcap_request {
    static constexpr int interface_capacity = 48;
    unique_fd client;
    int32_t duration = 0;                     // seconds; 0: the capture's default
    int32_t total_size = 0;                   // bytes; 0: the capture's default
    bool exact = false;                       // a capture with true lengths, for which 0 is no limit
    char interface[interface_capacity] = {};  // ends in a NUL; empty: all interfaces
};

// Thread entry; takes over the pcap_request (from worker_new_record).
void* run_pcap_request(void* record);
