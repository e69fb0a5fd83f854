// The worker thread that streams a debug archive.
#pragma once

#include <atomic>

#include "archive/archive_form.h"
#include "common/unique_fd.h"

struct archive_request {
    unique_fd client;
    bool compress = false;
    archive_form form = archive_form::usual;
};

// 1 while an archive is being made. The listener sets it before it starts the worker; the worker clears it
// just before it closes the connection.
extern std::atomic<int> archive_busy;

// Thread entry; takes over the archive_request (from worker_new_record).
void* run_archive_request(void* record);
