#include "cgi/worker_strace.h"

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/unique_fd.h"

// The tracer is not wired up yet: the request gets the answer for a server that can't do it.
void* run_strace_request(void* record) {
    unique_malloc<strace_request> req(static_cast<strace_request*>(record));
    worker_assert(req != nullptr, "req", 470, "run_strace_request");
    unique_fd client(req->client_fd);
    if (worker_detach(client.get())) {
        http_write_fixed(client.get(), http_server_error);
    }
    return nullptr;
}
