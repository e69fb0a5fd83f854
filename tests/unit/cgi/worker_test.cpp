#include "cgi/worker.h"

#include <pthread.h>

#include <atomic>

#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/threads.h"

namespace {

TEST(worker_assert, returns_if_the_condition_holds) {
    worker_assert(true, "req", 311, "run_archive_request");
}

TEST(worker_assert, ends_the_program_with_the_standard_message) {
    EXPECT_EXIT(
        {
            forbid_core_files();
            worker_assert(false, "req", 311, "run_archive_request");
        },
        testing::KilledBySignal(SIGABRT),
        "^[^:]*: request:311: run_archive_request: Assertion `req' failed\\.\n");
    EXPECT_EXIT(
        {
            forbid_core_files();
            worker_assert(false, "data", 406, "run_ps_request");
        },
        testing::KilledBySignal(SIGABRT),
        "^[^:]*: request:406: run_ps_request: Assertion `data' failed\\.\n");
}

// What a thread reports about its own state.
struct detach_report {
    int client_fd;
    std::atomic<int> went_on{-1};
    std::atomic<int> state{-1};
};

void* detach_and_report(void* argument) {
    auto* report = static_cast<detach_report*>(argument);
    int went_on = worker_detach(report->client_fd) ? 1 : 0;
    pthread_attr_t attributes;
    int state = -2;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getdetachstate(&attributes, &state);
        pthread_attr_destroy(&attributes);
    }
    report->state = state;
    report->went_on = went_on;
    return nullptr;
}

TEST(worker_detach, detaches_the_calling_thread_and_writes_nothing) {
    browser client;
    static detach_report report;
    report.client_fd = client.daemon_end();
    ASSERT_TRUE(worker_start(detach_and_report, &report));
    ASSERT_TRUE(eventually([] { return report.went_on >= 0; }));
    EXPECT_EQ(report.went_on, 1);
    EXPECT_EQ(report.state, PTHREAD_CREATE_DETACHED);
    EXPECT_TRUE(client.is_waiting());
    wait_for_workers();
}

TEST(worker_detach, answers_with_a_server_error_if_it_fails) {
    browser client;
    static detach_report report;
    report.client_fd = client.daemon_end();
    start_detached(detach_and_report, &report);
    ASSERT_TRUE(eventually([] { return report.went_on >= 0; }));
    EXPECT_EQ(report.went_on, 0);
    client.drop_daemon_end();
    EXPECT_EQ(client.answer(), broken_server_answer);
    wait_for_workers();
}

std::atomic<void*> given{nullptr};
std::atomic<bool> on_another_thread{false};
pthread_t starter;

void* note_argument(void* argument) {
    pthread_detach(pthread_self());
    on_another_thread = !pthread_equal(pthread_self(), starter);
    given = argument;
    return nullptr;
}

TEST(worker_start, runs_the_entry_with_its_argument_on_a_thread_of_its_own) {
    int place = 0;
    starter = pthread_self();
    ASSERT_TRUE(worker_start(note_argument, &place));
    EXPECT_TRUE(eventually([&] { return given == &place; }));
    EXPECT_TRUE(on_another_thread);
    wait_for_workers();
}

TEST(worker_start, returns_false_if_no_thread_can_be_started) {
    int status = run_in_child([] {
        if (!forbid_new_threads()) {
            return 2;
        }
        return worker_start(note_argument, nullptr) ? 1 : 0;
    });
    EXPECT_TRUE(exited_with(status, 0));
}

}  // namespace
