// The worker thread that streams a debug archive.
#pragma once

#include <atomic>

struct archive_request {
    int client_fd;
    int compress;
};

// 1 while an archive is being made: the listener sets it before it starts the worker, the worker clears it
// just before it closes the connection.
extern std::atomic<int> archive_busy;

// Thread entry; takes over the archive_request (from malloc) and its connection.
void* run_archive_request(void* record);
