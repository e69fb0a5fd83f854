#include "cgi/worker.h"

#undef NDEBUG  // release builds keep these assertions
#include <assert.h>
#include <pthread.h>

#include "cgi/http.h"

void worker_assert(bool holds, const char* text, unsigned line, const char* function) {
    if (!holds) {
        __assert_fail(text, "request", line, function);
    }
}

bool worker_detach(int client_fd) {
    if (pthread_detach(pthread_self()) == 0) {
        return true;
    }
    http_write_fixed(client_fd, http_server_error);
    return false;
}

bool worker_start(void* (*entry)(void*), void* argument) {
    pthread_t thread;
    return pthread_create(&thread, nullptr, entry, argument) == 0;
}
