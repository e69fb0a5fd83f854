#include "cgi/worker_archive.h"

#include "archive/pipeline.h"
#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/give_back.h"
#include "common/unique_fd.h"

std::atomic<int> archive_busy{0};

void* run_archive_request(void* record) {
    unique_malloc<archive_request> req(static_cast<archive_request*>(record));
    worker_assert(req != nullptr, "req", 311, "run_archive_request");
    unique_fd client(req->client_fd);
    if (worker_detach(client.get())) {
        (void)stream_http_header(client.get(), "application/x-tar",
                                 req->compress ? "debug.tgz" : "debug.tar");
        (req->compress ? stream_tgz : stream_tar)(client.get());
    }
    give_memory_back();  // the daemon is idle most of its life, and shall be small then
    // Before the close: who sees the end of a download may ask for the next one at once.
    archive_busy = 0;
    return nullptr;
}
