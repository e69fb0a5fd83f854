// What all worker threads share.
#pragma once

// Ends the daemon through abort() with the standard message when `holds` is false. The message names the
// request code's chief file, "request", whatever file the worker stands in.
void worker_assert(bool holds, const char* text, unsigned line, const char* function);

// Detaches the calling thread; when that fails, `client_fd` gets the answer for a broken server. Returns
// whether the worker may go on.
bool worker_detach(int client_fd);

// Starts the detached-by-itself worker `entry` with `argument`. Returns false when there is no thread.
bool worker_start(void* (*entry)(void*), void* argument);
