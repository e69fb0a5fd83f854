// Serves any bytes as a request message: the browser gets the answer that a simple reference parser expects.
//
// No thread can be started, so no worker runs, and the answer is complete when the call returns. Processes
// are searched in private namespaces. Without the privilege for those, requests that search them are skipped.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <string_view>

#include "cgi/query.h"
#include "cgi/request.h"
#include "cgi/waiting_browser.h"
#include "cgi/worker_archive.h"
#include "common/unique_fd.h"
#include "platform/vextor.h"
#include "proc/proc_list.h"
#include "tests/fuzz/require.h"

namespace {

constexpr size_t longest_message = 4095;
constexpr std::string_view broken_server =
    "HTTP/1.0 500 Internal Server Error\r\nContent-Type: text/plain\r\n\r\n"
    "The server encountered an internal error and could not complete the request\n";
constexpr std::string_view bad_request =
    "HTTP/1.0 400 Bad Request\r\nContent-Type: text/plain\r\n\r\n"
    "The request has bad syntax or was inherently impossible to satisfy\n";
constexpr std::string_view busy =
    "HTTP/1.0 503 Service Unavailable\r\nCache-Control: no-cache\r\n"
    "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: text/html\r\n\r\n"
    "<HTML><HEAD></HEAD>\r\n<BODY>\r\n"
    "Another Crash Report generation is in progress. Please try again later ...\r\n"
    "</BODY></HTML>\r\n\r\n";

bool in_private_namespaces = false;

// Waits for `child`, reaping orphans, and exits with its status.
[[noreturn]] void exit_with_status_of(pid_t child) {
    for (;;) {
        int status = 0;
        pid_t ended = wait(&status);
        if (ended == child || (ended < 0 && errno != EINTR)) {
            _exit(ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : 1);
        }
    }
}

// Forks and returns in the child. The parent exits with the child's status.
void continue_in_child() {
    pid_t child = fork();
    require(child >= 0);
    if (child > 0) {
        exit_with_status_of(child);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

void enter_private_namespaces() {
    if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0) {
        return;
    }
    continue_in_child();
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
            mount("proc", "/proc", "proc", 0, nullptr) == 0);
    continue_in_child();
    in_private_namespaces = true;
}

void forbid_new_threads() {
    pthread_attr_t attributes;
    require(pthread_attr_init(&attributes) == 0);
    require(pthread_attr_setstacksize(&attributes, SIZE_MAX / 2 & ~static_cast<size_t>(0xffff)) == 0);
    require(pthread_setattr_default_np(&attributes) == 0);
}

// The expected result of a request.
struct outcome {
    bool is_skipped = false;  // it would dump a process, or search this machine's processes
    bool is_kept = false;     // the browser waits
    bool sets_pop = false;    // the pop flag becomes `pop`
    bool pop = false;
    std::string_view answer;
    std::string_view or_answer;  // also accepted, if not empty
};

outcome answered(std::string_view answer, std::string_view or_answer = {}) {
    outcome result;
    result.answer = answer;
    result.or_answer = or_answer;
    return result;
}

outcome skipped() {
    outcome result;
    result.is_skipped = true;
    return result;
}

// True if a core request with this "pid" finds a process.
bool finds_process(const char* text) {
    pid_t pid = query_number(text);
    if (pid != -1) {
        return pid >= 0 && kill(pid, 0) == 0;
    }
    std::string name(query_trimmed(text));
    int count = 0;
    proc_find_pid_by_name("/proc", name.c_str(), &pid, &count, 1);
    return count > 0;
}

outcome expected_of_core(const char* pid) {
    if (pid == nullptr) {
        outcome waits;
        waits.is_kept = true;
        return waits;
    }
    return !in_private_namespaces || finds_process(pid) ? skipped() : answered(bad_request);
}

outcome expected_of_command(std::string_view cmd) {
    const char* pid = CGI_get_value("pid");
    if (cmd.starts_with("coredump")) {
        return expected_of_core(pid);
    }
    if (cmd.starts_with("strace")) {
        return in_private_namespaces ? answered(bad_request, broken_server) : skipped();
    }
    bool is_known = cmd.starts_with("pcapdump") || cmd.starts_with("ps") || cmd.starts_with("rtrace");
    return answered(is_known ? broken_server : bad_request);
}

outcome expected_of_download(const std::string& path, const std::string& query, bool is_busy) {
    if (path.find('/') == std::string::npos) {
        return answered(broken_server);
    }
    bool pop = query.compare(0, 3, "pop") == 0;
    if (pop || query.compare(0, 6, "listen") == 0) {
        outcome waits;
        waits.is_kept = true;
        waits.sets_pop = true;
        waits.pop = pop;
        return waits;
    }
    return answered(is_busy ? busy : broken_server);
}

outcome expected_of(const std::string& message, bool is_busy) {
    size_t path_end = message.find('\0');
    if (path_end == std::string::npos) {
        return answered(broken_server);
    }
    std::string query = message.c_str() + path_end + 1;
    CGI_set_query(query.c_str());
    CGI_save_env();
    const char* cmd = CGI_get_value("cmd");
    outcome result = cmd != nullptr ? expected_of_command(cmd)
                                    : expected_of_download(message.substr(0, path_end), query, is_busy);
    CGI_cleanup();
    return result;
}

// Returns everything written to a connection, which must be closed.
std::string answer_on(int fd) {
    std::string all;
    char block[1024];
    for (;;) {
        ssize_t got = recv(fd, block, sizeof block, MSG_DONTWAIT);
        require(got >= 0);  // fails if it is still open
        if (got == 0) {
            return all;
        }
        all.append(block, static_cast<size_t>(got));
    }
}

void check_kept(int fd, const outcome& wanted) {
    pollfd waiting = {fd, POLLIN, 0};
    require(poll(&waiting, 1, 0) == 0);
    close_listener();
    require(answer_on(fd).empty());
    require(!wanted.sets_pop || is_pop() == wanted.pop);
}

void check_answered(int fd, const outcome& wanted) {
    std::string answer = answer_on(fd);
    require(answer == wanted.answer || (!wanted.or_answer.empty() && answer == wanted.or_answer));
}

int lowest_free_descriptor() {
    return unique_fd(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)).get();
}

// Serves a copy of exactly the message and its terminating zero, so that the address sanitizer detects a read
// beyond it.
void serve(int client_fd, const std::string& message) {
    unique_malloc<char> text(static_cast<char*>(malloc(message.size() + 1)));
    memcpy(text.get(), message.c_str(), message.size() + 1);
    pre_process_request(client_fd, text.get(), static_cast<int>(message.size()));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    signal(SIGPIPE, SIG_IGN);
    enter_private_namespaces();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool is_forbidden = (forbid_new_threads(), true);
    require(is_forbidden);
    std::string message(reinterpret_cast<const char*>(data), std::min(size, longest_message));
    if (message.empty()) {
        return 0;  // the listener passes on no empty message
    }
    bool is_busy = message.size() % 2 == 0;
    outcome wanted = expected_of(message, is_busy);
    if (wanted.is_skipped) {
        return 0;
    }
    int free_before = lowest_free_descriptor();
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    unique_fd browser(ends[0]);
    bool pop_before = is_pop();
    archive_busy = is_busy;
    serve(ends[1], message);
    require(archive_busy == is_busy);
    require(wanted.sets_pop || is_pop() == pop_before);
    if (wanted.is_kept) {
        check_kept(browser.get(), wanted);
    } else {
        check_answered(browser.get(), wanted);
    }
    browser.reset();
    require(lowest_free_descriptor() == free_before);  // nothing was left open
    return 0;
}
