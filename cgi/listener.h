// The daemon's one loop.
#pragma once

struct listener_options {
    int cgi_socket = -1;             // from qorlink_server_socket; borrowed
    int segfault_socket = -1;        // a listening stream socket; borrowed
    const char* dump_dir = nullptr;  // where stored dumps are; null: the device's own directories
};

// Receives requests and pushed dumps for ever.
[[noreturn]] void run_listener(const listener_options& options);

// One round: waits for either socket and serves what is there.
void listener_round(const listener_options& options);
