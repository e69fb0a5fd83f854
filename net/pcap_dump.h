// Capturing frames into a pcap stream.
#pragma once

#include <stdint.h>

#include "net/pcap_writer.h"

struct sock_fprog;

struct pcap_dump_options {
    unsigned max_total = 0;              // exact size of the whole stream in bytes; 0: no limit
    unsigned snaplen = 0;                // recorded length of every frame; 0: its own
    int duration = 0;                    // seconds; 0: no limit
    int promisc = 0;                     // not 0: the interfaces are in promiscuous mode meanwhile
    const sock_fprog* filter = nullptr;  // attached to every socket
    int stop_fd = -1;                    // the capture ends when this can be read (nobody does); -1: none
    pcap_progress progress = {};         // told of what has been written
};

// Captures on `interfaces` (up to six names separated by commas, cut up in place; "any" when none is valid)
// onto `out_fd` (borrowed). Promiscuous mode is off afterwards, whatever it was before.
//
// A stream with an exact size ends early when a frame does not fit any more, or when a socket fails, and is
// filled up with records of zero bytes. Below the 24 bytes of the file header it is that header. Without any
// limit the capture ends when the peer of `out_fd` goes; what the peer sends is thrown away.
//
// Returns the bytes written (INT32_MAX for more), -1 after a failed write or without memory, 0 when no
// interface could be opened, which has been reported on standard error: nothing has been written then.
int32_t pcap_dump_with(char* interfaces, int out_fd, const pcap_dump_options& options);

// The same with the options one by one and nothing to stop it.
int32_t pcap_dump(char* interfaces, int out_fd, unsigned max_total, unsigned snaplen, int duration,
                  int promisc, const sock_fprog* filter);
