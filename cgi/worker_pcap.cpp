#include "cgi/worker_pcap.h"

#include "cgi/download_name.h"
#include "cgi/http.h"
#include "cgi/worker.h"
#include "net/pcap_stream.h"

namespace {

// Sends the header of the answer. An exact capture is named after its interfaces and the time.
void send_header(const pcap_request& req) {
    download_name name = {"pcapdump.cap"};
    if (req.exact) {
        name = download_name_now("capture", req.interface[0] ? req.interface : "any", "cap");
    }
    (void)stream_http_header(req.client.get(), "application/octet-stream", name.text);
}

}  // namespace

void* run_pcap_request(void* record) {
    unique_worker_record<pcap_request> req(static_cast<pcap_request*>(record));
    worker_assert(req != nullptr, "req", 384, "run_pcap_request");
    const int client_fd = req->client.get();
    if (worker_detach(client_fd)) {
        send_header(*req);
        (void)stream_pcap(client_fd, req->duration, req->total_size, req->interface, req->exact);
    }
    return nullptr;
}
