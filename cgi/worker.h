// What all worker threads share.
#pragma once

#include <stdlib.h>

#include <memory>
#include <new>

// What a worker needs to know, with the browser's connection in it. The request's code fills it; the worker
// thread owns it.
struct worker_record_deleter {
    template <typename Record>
    void operator()(Record* record) const {
        record->~Record();
        free(record);
    }
};
template <typename Record>
using unique_worker_record = std::unique_ptr<Record, worker_record_deleter>;

// A record with its initial values; null if memory runs out.
template <typename Record>
unique_worker_record<Record> worker_new_record() {
    void* memory = malloc(sizeof(Record));
    return unique_worker_record<Record>(memory ? new (memory) Record() : nullptr);
}

// Ends the daemon through abort() with the standard message when `holds` is false. The message always names
// the source "request", whatever file the worker is in.
void worker_assert(bool holds, const char* text, unsigned line, const char* function);

// Detaches the calling thread. If that fails, writes the answer for a server error to `client_fd` (borrowed)
// and returns false.
bool worker_detach(int client_fd);

// Runs `entry` with `argument` on a new thread, which has to detach itself. Returns false if there is no
// thread.
bool worker_start(void* (*entry)(void*), void* argument);
