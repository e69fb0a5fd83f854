#include "tools/webfront/report_reader.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <system_error>

#include "common/unique_pipe.h"

namespace {

constexpr size_t piece_size = size_t{64} << 10;
constexpr size_t remark_limit = 300;  // bytes of what the reader says that are passed on
// The time from the page's end until the reader's exit, and the pause between two looks for it.
constexpr std::chrono::milliseconds exit_time{10000};
constexpr std::chrono::milliseconds end_pause{10};
constexpr int status_whole = 0;
constexpr int status_cut = 3;
constexpr int status_not_started = 127;

struct child_fds {
    int in;
    int out;
    int err;
};

// Runs in the child of a process with threads: calls only what is safe there.
[[noreturn]] void run_child(const char* path, const child_fds& fds, pid_t parent) {
    char* const words[] = {const_cast<char*>("archiveview"), const_cast<char*>("--html"),
                           const_cast<char*>("-"), const_cast<char*>("-"), nullptr};
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(status_not_started);  // the front ended before the request
    }
    setpgid(0, 0);  // so that the programs it starts can be ended with it
    signal(SIGPIPE, SIG_DFL);
    const int given[] = {fds.in, fds.out, fds.err};
    for (int number = 0; number < 3; number++) {
        if (dup2(given[number], number) < 0) {
            _exit(status_not_started);
        }
    }
    execve(path, words, environ);
    const char* reason = strerrordesc_np(errno);
    (void)!write(STDERR_FILENO, reason, reason ? strlen(reason) : 0);
    _exit(status_not_started);
}

// A descriptor above the standard ones, which run_child() replaces one by one.
unique_fd above_standard(unique_fd fd) {
    if (fd.get() > STDERR_FILENO) {
        return fd;
    }
    return unique_fd(fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

unique_pipe open_pipe() {
    unique_pipe pipe = pipe_open();
    if (!pipe) {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    return {above_standard(std::move(pipe.read_end)), above_standard(std::move(pipe.write_end))};
}

// Appends what has arrived, until `text` has `limit` bytes; drops the rest. Does not block. Closes the pipe
// at its end.
void read_some(unique_fd* fd, std::string* text, size_t limit) {
    pollfd wait = {fd->get(), POLLIN, 0};
    if (poll(&wait, 1, 0) <= 0) {
        return;
    }
    char piece[piece_size];
    const ssize_t got = read(fd->get(), piece, sizeof piece);
    if (got > 0) {
        text->append(piece, std::min(static_cast<size_t>(got), limit - text->size()));
    } else if (got == 0 || errno != EINTR) {
        fd->reset();
    }
}

// The first line of a text, without control characters and the full stop.
std::string first_line(std::string text) {
    text.resize(std::min(text.find('\n'), text.size()));
    std::ranges::replace_if(
        text, [](unsigned char byte) { return byte < ' ' || byte >= 0x7f; }, '?');
    while (text.ends_with('.')) {
        text.pop_back();
    }
    return text;
}

// Why there is no page; empty if the status is that of a reader that has written one.
std::string why_failed(int status, const std::string& remarks) {
    const std::string said = remarks.empty() ? "" : ": " + first_line(remarks);
    if (WIFSIGNALED(status)) {
        return "archiveview was ended by signal " + std::to_string(WTERMSIG(status)) + said;
    }
    switch (WEXITSTATUS(status)) {
        case status_whole:
        case status_cut:
            return "";
        case status_not_started:
            return "archiveview could not be started" + said;
        default:
            return "archiveview ended with status " + std::to_string(WEXITSTATUS(status)) + said;
    }
}

}  // namespace

webfront_report_reader::webfront_report_reader(const std::string& path, unique_fd archive) {
    unique_pipe page = open_pipe();
    unique_pipe remarks = open_pipe();
    const unique_fd in = above_standard(std::move(archive));
    const child_fds fds = {in.get(), page.write_end.get(), remarks.write_end.get()};
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        run_child(path.c_str(), fds, parent);
    }
    if (pid_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    setpgid(pid_, pid_);  // whichever of the two is first
    page_ = std::move(page.read_end);
    remarks_ = std::move(remarks.read_end);
}

webfront_report_reader::~webfront_report_reader() {
    end();
}

// Kills the reader and the programs that it has started. Returns its wait status, which is that of its own
// end if it has ended before.
int webfront_report_reader::end() {
    int status = 0;
    if (pid_ > 0) {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    return status;
}

bool webfront_report_reader::has_ended() const {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == pid_;
}

// Reads both outputs until the page's end. Returns false if the browser has gone.
bool webfront_report_reader::read_outputs(webfront_browser_watch* browser, clock::time_point until,
                                          outputs* read) {
    while (page_ && clock::now() < until && read->page.size() <= webfront_report_limit) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now());
        if (!browser->wait(std::max(left, end_pause), page_.get(), remarks_.get())) {
            return false;
        }
        read_some(&page_, &read->page, webfront_report_limit + 1);
        read_some(&remarks_, &read->remarks, remark_limit);
    }
    return true;
}

// Waits for the exit, which follows the page's end. Returns false if the browser has gone.
bool webfront_report_reader::await_exit(webfront_browser_watch* browser, clock::time_point until,
                                        outputs* read) {
    while (!has_ended() && clock::now() < until) {
        if (!browser->wait(end_pause, remarks_.get())) {
            return false;
        }
        read_some(&remarks_, &read->remarks, remark_limit);
    }
    read_some(&remarks_, &read->remarks, remark_limit);
    return true;
}

webfront_report_outcome webfront_report_reader::wait(webfront_browser_watch* browser,
                                                     std::chrono::milliseconds time) {
    outputs read;
    const clock::time_point until = clock::now() + time;
    if (!read_outputs(browser, until, &read) ||
        !await_exit(browser, std::min(until, clock::now() + exit_time), &read)) {
        return {.has_browser_gone = true};
    }
    if (read.page.size() > webfront_report_limit) {
        return {.error = "archiveview wrote a page of more than " + std::to_string(webfront_report_limit) +
                         " bytes"};
    }
    if (!has_ended()) {
        return {.error = "archiveview did not end in time"};
    }
    const std::string reason = why_failed(end(), read.remarks);
    if (reason.empty() && read.page.empty()) {
        return {.error = "archiveview wrote no page"};
    }
    return reason.empty() ? webfront_report_outcome{.page = std::move(read.page)}
                          : webfront_report_outcome{.error = reason};
}
