// Capturing frames into a pcap stream.
#pragma once

#include <stdint.h>

#include "net/pcap_writer.h"

struct sock_fprog;

struct pcap_dump_options {
    unsigned max_total = 0;              // size of the whole stream in bytes; 0: no limit
    unsigned snaplen = 0;                // recorded length of every frame; 0: its own
    int duration = 0;                    // seconds; 0: no limit
    int promisc = 0;                     // not 0: promiscuous mode during the capture
    const sock_fprog* filter = nullptr;  // attached to every socket
    bool is_exact = false;               // records tell a frame's whole length, even if it was cut
    bool is_padded = true;               // the stream has the size exactly; false: at most
    int stop_fd = -1;                    // the capture ends when this is readable; never read; -1: none
    pcap_progress progress = {};         // called after each write
};

// Captures from `interfaces` (up to six names separated by commas, split in place; all interfaces if no name
// is valid) to `out_fd`, which is borrowed. Promiscuous mode is off afterwards, even if it was on before.
//
// If a size is given, the capture ends when a frame no longer fits, and the stream is filled up with records
// of zero bytes if it is to be padded. A size below the file header's 24 bytes gives the file header. The
// capture also ends when a socket fails and, without any limit or padding, when the peer of `out_fd` closes
// its side. What the peer sends is discarded.
//
// Returns the number of bytes written (INT32_MAX for more), or -1 if a write or an allocation failed. Returns
// 0 and writes nothing if no interface could be opened, which it reports on standard error.
int32_t pcap_dump_with(char* interfaces, int out_fd, const pcap_dump_options& options);

// The same without a stop descriptor.
int32_t pcap_dump(char* interfaces, int out_fd, unsigned max_total, unsigned snaplen, int duration,
                  int promisc, const sock_fprog* filter);
