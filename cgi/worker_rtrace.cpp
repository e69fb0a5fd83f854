#include "cgi/worker_rtrace.h"

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/unique_fd.h"

// The resource trace is not wired up yet: the request gets the answer for a server that can't do it.
void* run_rtrace_request(void* record) {
    unique_malloc<rtrace_request> req(static_cast<rtrace_request*>(record));
    unique_fd client(req->client_fd);
    if (worker_detach(client.get())) {
        http_write_fixed(client.get(), http_server_error);
    }
    return nullptr;
}
