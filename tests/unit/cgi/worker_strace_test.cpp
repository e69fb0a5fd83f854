#include "cgi/worker_strace.h"

#include <errno.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <thread>

#include "cgi/download_name.h"
#include "cgi/worker.h"
#include "tests/unit/cgi/browser.h"
#include "tests/unit/cgi/download_name_shape.h"
#include "tests/unit/cgi/named_child.h"
#include "tests/unit/cgi/threads.h"
#include "tests/unit/support/effort.h"
#include "tests/unit/trace/timed_text.h"
#include "tests/unit/trace/tracees.h"

namespace {

using namespace std::chrono_literals;
using clock_type = std::chrono::steady_clock;

const std::string head = download_head("text/plain", "stracedump.txt");

void start(unique_fd client, const std::vector<pid_t>& pids, bool timed = false) {
    auto request = worker_new_record<strace_request>();
    std::ranges::copy(pids, request->pids);
    request->pid_count = static_cast<int>(pids.size());
    request->client = std::move(client);
    request->timed = timed;
    ASSERT_TRUE(worker_start(run_strace_request, request.release()));
}

void start(browser& client, const std::vector<pid_t>& pids) {
    start(unique_fd(client.hand_over()), pids);
}

// A connection on the loopback interface: the browser's end and the daemon's.
std::pair<unique_fd, unique_fd> tcp_pair() {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    unique_fd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    unique_fd own(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listening.get(), any, size), 0);
    EXPECT_EQ(listen(listening.get(), 1), 0);
    EXPECT_EQ(getsockname(listening.get(), any, &size), 0);
    EXPECT_EQ(connect(own.get(), any, size), 0);
    return {std::move(own), unique_fd(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC))};
}

void expect_ended_within_a_second(clock_type::time_point since) {
    wait_for_workers();
    EXPECT_LT(clock_type::now() - since, 1s);
}

int unread_bytes(const browser& client) {
    int count = 0;
    EXPECT_EQ(ioctl(client.own_end(), FIONREAD, &count), 0);
    return count;
}

// Bytes that the daemon has written and the browser's kernel has not taken.
int unsent_bytes(int daemon_fd) {
    int count = 0;
    EXPECT_EQ(ioctl(daemon_fd, SIOCOUTQ, &count), 0);
    return count;
}

// True if a trace stands still because its browser does not read: `waiting_bytes` does not change, and the
// process stays stopped.
template <typename Count>
bool is_held_up(Count waiting_bytes, pid_t pid, std::chrono::milliseconds how_long = 20ms) {
    constexpr int looks = 20;
    const int before = waiting_bytes();
    for (int i = 0; i < looks; i++) {
        std::this_thread::sleep_for(how_long / looks);
        if (before == 0 || waiting_bytes() != before || state_of(pid) != 't') {
            return false;
        }
    }
    return true;
}

}  // namespace

TEST(strace_worker, streams_until_the_processes_have_ended) {
    test_pipe gate;
    tracee child([&gate] {
        char byte;
        (void)!read(gate.out.get(), &byte, 1);
        return 6;
    });
    pid_t pid = child.pid();
    browser client;
    start(client, {pid});
    ASSERT_TRUE(eventually([pid] { return is_traced(pid); }));
    ASSERT_EQ(write(gate.in.get(), "x", 1), 1);
    std::string answer = client.answer();
    EXPECT_EQ(answer.substr(0, head.size()), head);
    EXPECT_NE(answer.find("exit_group(6)\n"), std::string::npos) << answer;
    wait_for_workers();
    EXPECT_TRUE(exited_with(child.end(), 6));
}

TEST(strace_worker, reports_calls_signals_exits_and_descriptors) {
    gated_child child([] {
        signal(SIGUSR1, SIG_IGN);
        raise(SIGUSR1);
        return 6;
    });
    browser client;
    start(client, {child.pid()});
    ASSERT_TRUE(eventually([&child] { return is_traced(child.pid()); }));
    child.open_gate();
    std::string answer = client.answer();
    EXPECT_EQ(count_in(answer, "exit_group(6)\n"), 1u) << answer;
    EXPECT_EQ(count_in(answer, " SIGUSR1 ---\n"), 1u) << answer;
    // Once at the call and once at the end of the process.
    EXPECT_EQ(count_in(answer, " open fds:\n"), 2u) << answer;
    wait_for_workers();
    EXPECT_TRUE(exited_with(child.child.end(), 6));
}

namespace {

// The answer to a request for a timed trace of children that end when they are traced.
template <size_t count>
std::string timed_answer(gated_child (&children)[count]) {
    std::vector<pid_t> pids;
    for (const gated_child& child : children) {
        pids.push_back(child.pid());
    }
    browser client;
    start(unique_fd(client.hand_over()), pids, true);
    for (gated_child& child : children) {
        EXPECT_TRUE(eventually([&child] { return is_traced(child.pid()); }));
        child.open_gate();
    }
    std::string answer = client.answer();
    wait_for_workers();
    for (gated_child& child : children) {
        EXPECT_TRUE(exited_with(child.child.end(), 6));
    }
    return answer;
}

// Expects a download of a timed trace whose file name has this shape. Returns the trace.
std::string expect_timed_download(const std::string& answer, const std::string& name) {
    const std::string begin = "filename=\"";
    const size_t at = answer.find(begin) + begin.size();
    const std::string found = answer.substr(at, answer.find('"', at) - at);
    EXPECT_EQ(without_stamp(found), name);
    const std::string expected = download_head("text/plain", found);
    EXPECT_EQ(answer.substr(0, expected.size()), expected);
    std::string text = answer.substr(std::min(expected.size(), answer.size()));
    expect_timed(text);
    return text;
}

// The call before the end is traced, even if the one that waits for the gate ends while the trace attaches.
int end_with_6() {
    (void)getppid();
    return 6;
}

}  // namespace

TEST(strace_worker, timed_trace_has_times_and_the_name_of_its_process) {
    gated_child child[] = {gated_child(end_with_6)};
    const std::string pid = std::to_string(child[0].pid());
    const std::string text = expect_timed_download(
        timed_answer(child), std::string("trace-") + program_invocation_short_name + "-" + pid + "-.txt");
    EXPECT_EQ(count_in(text, "exit_group(6)\n"), 1u) << text;
    EXPECT_GE(duration_of(line_with(text, ") = ")), 0) << text;
}

TEST(strace_worker, timed_trace_of_several_processes_has_the_name_of_the_host) {
    gated_child children[] = {gated_child(end_with_6), gated_child(end_with_6)};
    const std::string text = expect_timed_download(timed_answer(children),
                                                   without_stamp(download_name_of_host("trace", "txt").text));
    EXPECT_EQ(count_in(text, "exit_group(6)\n"), 2u) << text;
}

TEST(strace_worker, name_of_a_timed_trace_is_cut_before_the_number_of_its_process) {
    named_child child(std::string(100, 'n'));
    browser client;
    start(unique_fd(client.hand_over()), {child.pid()}, true);
    ASSERT_EQ(write(client.own_end(), "x", 1), 1);  // ends the trace
    const std::string name = "trace-" + std::string(48, 'n') + "-" + std::to_string(child.pid()) + "-.txt";
    (void)expect_timed_download(client.answer(), name);
    wait_for_workers();
}

TEST(strace_worker, timed_trace_of_an_ended_process_has_no_name_for_it) {
    const pid_t pid = dead_pid();
    browser client;
    start(unique_fd(client.hand_over()), {pid}, true);
    EXPECT_NE(client.answer().find("filename=\"trace-unknown-" + std::to_string(pid) + "-"),
              std::string::npos);
    wait_for_workers();
}

TEST(strace_worker, ends_if_the_browser_closes_while_nothing_happens) {
    tracee sleeper(sleep_for_ever);
    browser client;
    start(client, {sleeper.pid()});
    ASSERT_TRUE(
        eventually([&sleeper] { return is_traced(sleeper.pid()) && state_of(sleeper.pid()) == 'S'; }));
    auto left = clock_type::now();
    client.go_away();
    expect_ended_within_a_second(left);
    expect_free(sleeper.pid());
}

TEST(strace_worker, ends_when_the_browser_sends_something_and_still_lists_the_descriptors) {
    tracee sleeper(sleep_for_ever);
    browser client;
    start(client, {sleeper.pid()});
    ASSERT_TRUE(
        eventually([&sleeper] { return is_traced(sleeper.pid()) && state_of(sleeper.pid()) == 'S'; }));
    ASSERT_EQ(write(client.own_end(), "x", 1), 1);
    std::string answer = client.answer();
    EXPECT_NE(answer.find(" open fds:\n0\t"), std::string::npos) << answer;
    wait_for_workers();
    expect_free(sleeper.pid());
}

TEST(strace_worker, browser_that_has_gone_before_the_trace_does_no_harm) {
    for (int i = 0; i < effort(100, 25); i++) {
        tracee sleeper(sleep_for_ever);
        browser client;
        client.go_away();
        auto begun = clock_type::now();
        start(client, {sleeper.pid()});
        expect_ended_within_a_second(begun);
        expect_free(sleeper.pid());
    }
}

TEST(strace_worker, no_wake_up_is_lost) {
    std::mt19937 random(7);
    tracee sleeper(sleep_for_ever);
    ASSERT_TRUE(sleeper.asleep());
    for (int i = 0; i < effort(1000, 200); i++) {
        browser client;
        start(client, {sleeper.pid()});
        usleep(random() % 1500);
        auto left = clock_type::now();
        client.go_away();
        expect_ended_within_a_second(left);
        ASSERT_FALSE(HasFailure()) << i;
    }
    expect_free(sleeper.pid());
}

TEST(strace_worker, browser_that_stops_reading_does_not_hold_the_processes_for_ever) {
    tracee busy(call_for_ever);
    browser client;
    int small = 4096;
    setsockopt(client.daemon_end(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    start(client, {busy.pid()});
    ASSERT_TRUE(eventually([&busy] { return is_traced(busy.pid()); }));
    EXPECT_TRUE(eventually([&busy] { return !is_traced(busy.pid()); },
                           std::chrono::milliseconds(strace_stall_ms + 5000)));
    wait_for_workers();
    expect_free(busy.pid());
}

// The slowest browser that is sure to be served to the end.
constexpr int slow_bytes_a_second = 5000;

// Reads at that rate for more than twice the stall limit, and catches up if the test itself was delayed.
// Returns true if the process is still traced.
bool is_traced_by_a_slow_browser(int fd, pid_t pid) {
    constexpr auto how_long = std::chrono::milliseconds(2 * strace_stall_ms + 2000);
    const auto begun = clock_type::now();
    std::string text(4096, '\0');
    size_t taken = 0;
    for (auto passed = 0ms; passed < how_long;) {
        passed = std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now() - begun);
        const auto due = static_cast<size_t>(slow_bytes_a_second * passed.count() / 1000);
        while (taken < due) {
            ssize_t got = recv(fd, text.data(), std::min(text.size(), due - taken), 0);
            if (got <= 0) {
                return false;
            }
            taken += static_cast<size_t>(got);
        }
        usleep(100000);
    }
    return is_traced(pid);
}

TEST(strace_worker, slow_browser_on_a_local_socket_is_served) {
    tracee busy(call_for_ever);
    browser client;
    start(client, {busy.pid()});
    EXPECT_TRUE(is_traced_by_a_slow_browser(client.own_end(), busy.pid()));
    client.go_away();
    wait_for_workers();
    expect_free(busy.pid());
}

TEST(strace_worker, slow_browser_on_a_tcp_connection_is_served) {
    tracee busy(call_for_ever);
    auto [own, daemons] = tcp_pair();
    start(std::move(daemons), {busy.pid()});
    EXPECT_TRUE(is_traced_by_a_slow_browser(own.get(), busy.pid()));
    own.reset();
    wait_for_workers();
    expect_free(busy.pid());
}

// The bytes that a browser must read from a stalled connection before the daemon's end shows progress.
int bytes_until_noticed(int own_fd, int daemon_fd) {
    constexpr int step = 512;
    constexpr int enough = 1 << 20;
    std::string text(step, '\0');
    const int before = unsent_bytes(daemon_fd);
    int taken = 0;
    while (taken < enough && !eventually([&] { return unsent_bytes(daemon_fd) != before; }, 10ms)) {
        taken += static_cast<int>(std::max<ssize_t>(recv(own_fd, text.data(), text.size(), MSG_DONTWAIT), 0));
    }
    return taken;
}

TEST(strace_worker, reading_of_a_slow_tcp_browser_is_noticed) {
    tracee busy(call_for_ever);
    auto [own, daemons] = tcp_pair();
    unique_fd watched(dup(daemons.get()));
    start(std::move(daemons), {busy.pid()});
    ASSERT_TRUE(
        eventually([&] { return is_held_up([&] { return unsent_bytes(watched.get()); }, busy.pid(), 1s); }));
    EXPECT_LT(bytes_until_noticed(own.get(), watched.get()),
              slow_bytes_a_second * strace_stall_ms / 1000 / 2);
    own.reset();
    watched.reset();
    wait_for_workers();
    expect_free(busy.pid());
}

TEST(strace_worker, browser_that_stops_reading_and_then_sending_holds_the_processes_no_longer) {
    tracee busy(call_for_ever);
    browser client;
    int small = 4096;
    setsockopt(client.daemon_end(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    start(client, {busy.pid()});
    ASSERT_TRUE(eventually([&] { return is_held_up([&] { return unread_bytes(client); }, busy.pid()); }));
    auto ended = clock_type::now();
    ASSERT_EQ(shutdown(client.own_end(), SHUT_WR), 0);
    expect_ended_within_a_second(ended);
    expect_free(busy.pid());
}

TEST(strace_worker, second_trace_waits_and_its_browser_may_leave) {
    tracee first(sleep_for_ever);
    tracee second(sleep_for_ever);
    browser client;
    start(client, {first.pid()});
    ASSERT_TRUE(eventually([&first] { return is_traced(first.pid()); }));
    browser impatient;
    start(impatient, {second.pid()});
    impatient.go_away();
    browser patient;
    start(patient, {second.pid()});
    EXPECT_FALSE(is_traced(second.pid()));
    client.go_away();
    EXPECT_TRUE(eventually([&second] { return is_traced(second.pid()); }));
    patient.go_away();
    wait_for_workers();
    expect_free(first.pid());
    expect_free(second.pid());
}

TEST(strace_worker, process_that_cannot_be_traced_leaves_an_empty_answer) {
    browser client;
    start(client, {getpid(), -1});
    EXPECT_EQ(client.answer(), head);
    wait_for_workers();
}

TEST(strace_worker, leaves_no_descriptor_open) {
    tracee sleeper(sleep_for_ever);
    std::set<int> before = open_fds();
    {
        browser client;
        start(client, {sleeper.pid()});
        ASSERT_TRUE(eventually([&sleeper] { return is_traced(sleeper.pid()); }));
    }
    wait_for_workers();
    EXPECT_EQ(open_fds(), before);
}

TEST(strace_worker_death, null_record_is_reported_under_the_name_request) {
    EXPECT_DEATH(run_strace_request(nullptr), "request:470: run_strace_request: Assertion `req' failed");
    EXPECT_DEATH(run_strace_watcher(nullptr), "request:431: run_strace_watcher: Assertion `req' failed");
}
