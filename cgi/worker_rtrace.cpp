#include "cgi/worker_rtrace.h"

#include <memory>

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/unique_fd.h"
#include "monitor/rtrace.h"

namespace {

struct trace_destroyer {
    void operator()(rtrace_context* trace) const { rtrace_destroy(trace); }
};
using unique_trace = std::unique_ptr<rtrace_context, trace_destroyer>;

void stream_samples(const rtrace_request& req) {
    unique_trace trace(rtrace_create(req.client_fd, req.interval, req.mask));
    if (!trace) {
        http_write_fixed(req.client_fd, http_server_error);
        return;
    }
    // Whether the client is still there is the trace's to see.
    (void)stream_http_header(req.client_fd, "application/octet-stream", "rtrace");
    rtrace_run(trace.get());
}

}  // namespace

void* run_rtrace_request(void* record) {
    unique_malloc<rtrace_request> req(static_cast<rtrace_request*>(record));
    unique_fd client(req->client_fd);
    if (worker_detach(client.get())) {
        stream_samples(*req);
    }
    return nullptr;
}
