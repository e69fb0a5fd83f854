#include "cgi/worker_archive.h"

#include <stdio.h>

#include "archive/pipeline.h"
#include "cgi/download_name.h"
#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/give_back.h"

std::atomic<int> archive_busy{0};

namespace {

download_name file_name(const archive_request& req) {
    if (req.form == archive_form::full) {
        return download_name_of_host("debug", req.compress ? "tgz" : "tar");
    }
    download_name usual;
    snprintf(usual.text, sizeof usual.text, "%s", req.compress ? "debug.tgz" : "debug.tar");
    return usual;
}

}  // namespace

void* run_archive_request(void* record) {
    unique_worker_record<archive_request> req(static_cast<archive_request*>(record));
    worker_assert(req != nullptr, "req", 311, "run_archive_request");
    const int client_fd = req->client.get();
    if (worker_detach(client_fd)) {
        (void)stream_http_header(client_fd, "application/x-tar", file_name(*req).text);
        (req->compress ? stream_tgz : stream_tar)(client_fd, req->form);
    }
    give_memory_back();  // the daemon is idle most of its life and should be small then
    // Before the connection is closed: a browser that sees the end of a download may ask for the next at
    // once.
    archive_busy = 0;
    return nullptr;
}
