#include "cgi/worker_pcap.h"

#include <signal.h>
#include <sys/socket.h>

#include <string>
#include <string_view>

#include "cgi/worker.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/threads.h"
#include "tests/unit/net/private_network.h"

namespace {

// Starts a capture of near0 and returns the file name that its answer gives.
std::string start_and_read_name(const browser& client, pcap_request* request) {
    std::string_view("near0").copy(request->interface, pcap_request::interface_capacity - 1);
    EXPECT_TRUE(worker_start(run_pcap_request, request));
    std::string head;
    for (char byte; !head.ends_with("\r\n\r\n") && read(client.own_end(), &byte, 1) == 1;) {
        head += byte;
    }
    const std::string before_name = "filename=\"";
    size_t begin = head.find(before_name) + before_name.size();
    std::string name = head.substr(begin, head.find('"', begin) - begin);
    EXPECT_EQ(head, dump_head(name));
    return name;
}

NETWORK_TEST(pcap_worker, names_an_exact_capture_after_interface_and_time) {
    for (bool exact : {false, true}) {
        browser client;
        auto request = worker_new_record<pcap_request>();
        request->client = unique_fd(client.hand_over());
        request->duration = 1;
        request->total_size = 5000;
        request->exact = exact;
        std::string name = start_and_read_name(client, request.release());
        if (exact) {
            EXPECT_EQ(name.size(), std::string_view("capture-near0-YYYYMMDD-HHMMSS.cap").size()) << name;
            EXPECT_EQ(name.substr(0, 14), "capture-near0-") << name;
        } else {
            EXPECT_EQ(name, "pcapdump.cap");
        }
        EXPECT_EQ(client.answer().size(), exact ? 24u : 5000u);
    }
}

NETWORK_TEST(pcap_worker, without_limits_it_ends_when_the_browser_leaves) {
    browser client;
    auto request = worker_new_record<pcap_request>();
    request->client = unique_fd(client.hand_over());
    request->exact = true;
    start_and_read_name(client, request.release());
    char file_header[24];
    EXPECT_EQ(recv(client.own_end(), file_header, sizeof file_header, MSG_WAITALL), 24);
    EXPECT_EQ(capturing_sockets(), 1);
    client.go_away();
    EXPECT_TRUE(eventually([] { return capturing_sockets() == 0; }));
}

TEST(pcap_worker, that_cannot_detach_answers_with_a_server_error) {
    browser client;
    auto request = worker_new_record<pcap_request>();
    request->client = unique_fd(client.hand_over());
    start_detached(run_pcap_request, request.release());
    EXPECT_EQ(client.answer(), broken_server_answer);
    wait_for_workers();
}

TEST(pcap_worker_death, null_record_is_reported_under_the_name_request) {
    EXPECT_EXIT(
        {
            forbid_core_files();
            run_pcap_request(nullptr);
        },
        testing::KilledBySignal(SIGABRT), "request:384: run_pcap_request: Assertion `req' failed\\.");
}

}  // namespace
