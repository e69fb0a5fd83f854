#include "cgi/worker_pcap.h"

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/unique_fd.h"
#include "net/pcap_stream.h"

void* run_pcap_request(void* record) {
    unique_malloc<pcap_request> req(static_cast<pcap_request*>(record));
    worker_assert(req != nullptr, "req", 384, "run_pcap_request");
    unique_fd client(req->client_fd);
    if (worker_detach(client.get())) {
        (void)stream_http_header(client.get(), "application/octet-stream", "pcapdump.cap");
        (void)stream_pcap(client.get(), req->duration, req->total_size, req->interface);
    }
    return nullptr;
}
