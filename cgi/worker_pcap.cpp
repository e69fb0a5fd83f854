#include "cgi/worker_pcap.h"

#include "cgi/http.h"
#include "cgi/worker.h"
#include "common/unique_fd.h"

// The capture is not wired up yet: the request gets the answer for a server that can't do it.
void* run_pcap_request(void* record) {
    unique_malloc<pcap_request> req(static_cast<pcap_request*>(record));
    worker_assert(req != nullptr, "req", 384, "run_pcap_request");
    unique_fd client(req->client_fd);
    if (worker_detach(client.get())) {
        http_write_fixed(client.get(), http_server_error);
    }
    return nullptr;
}
