#include "cgi/worker_ps.h"

#include <stdint.h>

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/unique_fd.h"
#include "proc/ps_stream.h"

void* run_ps_request(void* connection) {
    worker_assert(connection != nullptr, "data", 406, "run_ps_request");
    unique_fd client(static_cast<int>(reinterpret_cast<intptr_t>(connection)));
    if (worker_detach(client.get())) {
        (void)stream_http_header(client.get(), "text/plain", "psdump.txt");
        stream_ps(client.get());
    }
    return nullptr;
}
