// The daemon's loop, which receives requests and pushed dumps.
#pragma once

struct listener_options {
    int cgi_socket = -1;             // from qorlink_server_socket; borrowed
    int segfault_socket = -1;        // a listening stream socket; borrowed
    const char* dump_dir = nullptr;  // directory of stored dumps; null: the device's own
};

// Serves both sockets for ever.
[[noreturn]] void run_listener(const listener_options& options);

// Waits for either socket and serves what has arrived.
void listener_round(const listener_options& options);
