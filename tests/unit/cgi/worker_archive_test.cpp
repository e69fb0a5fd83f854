#include "cgi/worker_archive.h"

#include "cgi/worker.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/private_machine.h"
#include "tests/unit/cgi/threads.h"

namespace {

constexpr size_t ustar_at = 257;

archive_request* new_request(int client_fd, bool compress) {
    auto request = worker_new_record<archive_request>();
    request->client = unique_fd(client_fd);
    request->compress = compress;
    return request.release();
}

// A whole archive takes a while: its capture alone takes 5 seconds.
std::string archive_answer(const browser& client) {
    return read_until_end(client.own_end(), std::chrono::seconds(90));
}

std::string first_bytes(const browser& client, size_t count) {
    std::string got(count, '\0');
    ssize_t length = recv(client.own_end(), got.data(), count, MSG_WAITALL);
    got.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return got;
}

void expect_on_private_machine(void (*work)()) {
    int result = run_on_private_machine(work);
    if (result == private_machine_refused) {
        GTEST_SKIP() << private_machine_refusal;
    }
    EXPECT_EQ(result, 0);
}

void compressed_archive() {
    browser client;
    archive_busy = 1;
    ASSERT_TRUE(worker_start(run_archive_request, new_request(client.hand_over(), 1)));
    std::string answer = archive_answer(client);
    EXPECT_EQ(archive_busy, 0) << "who sees the end is turned away";
    std::string head = download_head("application/x-tar", "debug.tgz");
    ASSERT_EQ(answer.substr(0, head.size()), head);
    EXPECT_EQ(answer.substr(head.size(), 3), "\x1f\x8b\x08");
}

TEST(archive_worker, sends_a_compressed_archive_and_is_free_before_it_closes) {
    expect_on_private_machine(compressed_archive);
}

// A browser leaves a plain archive after its first block; the next request is served.
void aborted_archive() {
    std::string head = download_head("application/x-tar", "debug.tar");
    {
        browser leaver;
        serve(leaver, "/cgi-bin/anything", "");
        std::string begin = first_bytes(leaver, head.size() + 512);
        ASSERT_EQ(begin.size(), head.size() + 512);
        EXPECT_EQ(begin.substr(0, head.size()), head);
        EXPECT_EQ(begin.substr(head.size() + ustar_at, 5), "ustar");
        EXPECT_EQ(archive_busy, 1);
        browser early;
        serve(early, "/x/debug.tar", "");
        EXPECT_EQ(early.answer(), busy_answer);
        EXPECT_EQ(archive_busy, 1);
    }
    ASSERT_TRUE(eventually([] { return archive_busy == 0; }, std::chrono::seconds(90)));
    browser next;
    serve(next, "/x/debug.tar", "");
    EXPECT_EQ(first_bytes(next, head.size()), head);
}

TEST(archive_worker, is_free_again_after_a_browser_left_midway) {
    expect_on_private_machine(aborted_archive);
}

void archives_by_path() {
    struct {
        const char* path;
        const char* name;
    } rows[] = {
        {"/cgi-bin/debug.tgz", "debug.tgz"},
        {"/debug.tgz.old", "debug.tgz"},
        {"/x/coredumps.tgz", "debug.tgz"},
        {"/x/debug.tar", "debug.tar"},
        {"/", "debug.tar"},
        {"/debug.tgz/", "debug.tar"},
        {"relative/debug.tgz", "debug.tgz"},
        {"/x/debug.tg", "debug.tar"},
        {"/x/Debug.tgz", "debug.tar"},
        {"/x/mydebug.tgz", "debug.tar"},
    };
    for (const auto& row : rows) {
        std::string head = download_head("application/x-tar", row.name);
        {
            browser client;
            serve(client, row.path, "");
            EXPECT_EQ(first_bytes(client, head.size()), head) << row.path;
        }
        ASSERT_TRUE(eventually([] { return archive_busy == 0; }, std::chrono::seconds(90))) << row.path;
    }
}

TEST(archive_worker, uses_the_last_component_of_the_path) {
    expect_on_private_machine(archives_by_path);
}

TEST(archive_worker, that_cannot_detach_answers_with_a_server_error_and_is_free) {
    for (int compress : {0, 1}) {
        browser client;
        archive_busy = 1;
        start_detached(run_archive_request, new_request(client.hand_over(), compress));
        EXPECT_EQ(client.answer(), broken_server_answer);
        EXPECT_EQ(archive_busy, 0);
    }
    wait_for_workers();
}

TEST(archive_worker, without_a_record_ends_the_daemon) {
    EXPECT_EXIT(
        {
            forbid_core_files();
            run_archive_request(nullptr);
        },
        testing::KilledBySignal(SIGABRT), "request:311: run_archive_request: Assertion `req' failed\\.");
}

}  // namespace
