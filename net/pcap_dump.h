// Capturing frames into a pcap stream.
#pragma once

#include <stdint.h>

struct sock_fprog;

// Captures on `interfaces` (names separated by commas, cut up in place; "any" when none is valid) for
// `duration` seconds onto `out_fd` (borrowed). `max_total` is the exact size of the whole stream, 0 for no
// limit; `snaplen` the recorded length of every frame, 0 for its own; `promisc` switches the interfaces to
// promiscuous mode meanwhile; `filter` is null or attached to every socket. Returns the bytes written, -1
// after a failed write, 0 when no interface could be opened: nothing has been written then.
int32_t pcap_dump(char* interfaces, int out_fd, unsigned max_total, unsigned snaplen, int duration,
                  int promisc, const sock_fprog* filter);
