#include "cgi/worker_pcap.h"

#include "cgi/http.h"
#include "cgi/worker.h"
#include "net/pcap_stream.h"

void* run_pcap_request(void* record) {
    unique_worker_record<pcap_request> req(static_cast<pcap_request*>(record));
    worker_assert(req != nullptr, "req", 384, "run_pcap_request");
    const int client_fd = req->client.get();
    if (worker_detach(client_fd)) {
        (void)stream_http_header(client_fd, "application/octet-stream", "pcapdump.cap");
        (void)stream_pcap(client_fd, req->duration, req->total_size, req->interface);
    }
    return nullptr;
}
