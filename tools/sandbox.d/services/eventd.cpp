// eventd: waits for events (a timer, new recordings), asks controld for the state now and then, and logs.
#include <poll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "tools/sandbox.d/services/service.h"

namespace {

constexpr itimerspec look_every = {{1, 0}, {1, 0}};
constexpr uint64_t looks_per_question = 3;
constexpr uint64_t looks_per_message = 60;
constexpr timeval answer_time = {2, 0};

// Returns the bytes of the answer; 0 if there is none.
size_t ask_state(const sockaddr_in& address) {
    const unique_fd server = service_connect(SOCK_STREAM, address);
    if (!server) {
        return 0;
    }
    (void)setsockopt(server.get(), SOL_SOCKET, SO_RCVTIMEO, &answer_time, sizeof answer_time);
    const std::string request = "GET /state HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    (void)send(server.get(), request.data(), request.size(), MSG_NOSIGNAL);
    size_t length = 0;
    char piece[1024];
    for (ssize_t got; (got = TEMP_FAILURE_RETRY(recv(server.get(), piece, sizeof piece, 0))) > 0;) {
        length += static_cast<size_t>(got);
    }
    return length;
}

class event_loop {
public:
    event_loop()
        : controld_(service_find("controld")),
          timer_(service_check(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "timerfd_create")),
          files_(service_check(inotify_init1(IN_CLOEXEC), "inotify_init1")) {
        service_find("recorderd");  // its folder exists when its port is known
        service_check(timerfd_settime(timer_.get(), 0, &look_every, nullptr), "timerfd_settime");
        service_check(inotify_add_watch(files_.get(), service_recordings, IN_CREATE | IN_DELETE),
                      "inotify_add_watch");
    }

    [[noreturn]] void run() {
        for (;;) {
            pollfd sources[] = {{timer_.get(), POLLIN, 0}, {files_.get(), POLLIN, 0}};
            if (poll(sources, std::size(sources), -1) < 0 && errno != EINTR) {
                service_fail("poll");
            }
            if (sources[0].revents != 0) {
                look();
            }
            if (sources[1].revents != 0) {
                note_files();
            }
        }
    }

private:
    void look() {
        uint64_t ticks = 0;
        if (read(timer_.get(), &ticks, sizeof ticks) < 0) {
            return;
        }
        looks_++;
        if (looks_ % looks_per_question == 0 && ask_state(controld_) == 0) {
            syslog(LOG_WARNING, "controld does not answer");
        }
        if (looks_ % looks_per_message == 0) {
            syslog(LOG_INFO, "%llu changes of recordings so far", static_cast<unsigned long long>(changes_));
        }
    }

    void note_files() {
        char events[4096];
        if (read(files_.get(), events, sizeof events) > 0) {
            changes_++;
        }
    }

    const sockaddr_in controld_;
    const unique_fd timer_;
    const unique_fd files_;
    uint64_t looks_ = 0;
    uint64_t changes_ = 0;
};

}  // namespace

int main() {
    openlog("eventd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    event_loop().run();
}
