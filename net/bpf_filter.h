// Socket filters of the capture.
#pragma once

struct sock_filter;

// The instructions that drop the traffic of the TCP connection `sock`, on the heap (the caller frees it), and
// their number in `*count` unless that is null. Null when `sock` is no connected IPv4 or IPv6 socket.
sock_filter* filter_me(int sock, int* count);
