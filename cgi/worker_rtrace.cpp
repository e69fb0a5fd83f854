#include "cgi/worker_rtrace.h"

#include <memory>

#include "cgi/http.h"
#include "cgi/worker.h"
#include "monitor/rtrace.h"

namespace {

struct trace_destroyer {
    void operator()(rtrace_context* trace) const { rtrace_destroy(trace); }
};
using unique_trace = std::unique_ptr<rtrace_context, trace_destroyer>;

void stream_samples(const rtrace_request& req) {
    const int client_fd = req.client.get();
    unique_trace trace(rtrace_create(client_fd, req.interval, req.mask));
    if (!trace) {
        http_write_fixed(client_fd, http_server_error);
        return;
    }
    // If the browser has gone, the trace notices.
    (void)stream_http_header(client_fd, "application/octet-stream", "rtrace");
    rtrace_run(trace.get());
}

}  // namespace

void* run_rtrace_request(void* record) {
    unique_worker_record<rtrace_request> req(static_cast<rtrace_request*>(record));
    if (worker_detach(req->client.get())) {
        stream_samples(*req);
    }
    return nullptr;
}
