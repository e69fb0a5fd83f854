#include "cgi/worker_pcap.h"

#include <signal.h>

#include "cgi/worker.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/threads.h"

namespace {

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
