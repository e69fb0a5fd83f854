#include "tools/webfront/archive_request.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

#include "platform/qorlink.h"
#include "tools/webfront/answer.h"

namespace {

using clock = std::chrono::steady_clock;

constexpr std::string_view request{"/debug.tgz\0full", 15};
constexpr std::string_view head_end = "\r\n\r\n";
constexpr size_t head_limit = 4096;
// The compressor writes its own header before the daemon has begun; more than that comes from the archive.
constexpr size_t first_bytes = 64;
// The archive's reader gives up after this time without a byte. The daemon ends after 300 seconds without
// progress, and its connections with it.
constexpr timeval silence_time = {310, 0};
// The pause before a look for more bytes when some have arrived, but not enough.
constexpr std::chrono::milliseconds look_pause{20};

bool has_ended(int fd) {
    pollfd wait = {fd, POLLRDHUP, 0};
    return poll(&wait, 1, 0) == 1;
}

std::string arrived(int fd) {
    std::string bytes(head_limit, '\0');
    const ssize_t got = recv(fd, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
    return bytes;
}

// True if enough has arrived to go on: the whole head and the archive's first bytes, or another answer.
bool is_enough(const std::string& bytes) {
    const size_t end = bytes.find(head_end);
    return bytes.size() == head_limit ||
           (end != std::string::npos && bytes.size() >= end + head_end.size() + first_bytes);
}

// Waits for the beginning of the answer. Returns nothing if the browser has gone.
std::optional<std::string> wait_for_start(int fd, webfront_browser_watch* browser, clock::time_point until) {
    for (;;) {
        const bool is_over = has_ended(fd) || clock::now() >= until;
        std::string bytes = arrived(fd);
        if (is_over || is_enough(bytes)) {
            return bytes;
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now());
        const bool is_there =
            bytes.empty() ? browser->wait(std::max(left, look_pause), fd) : browser->wait(look_pause, -1);
        if (!is_there) {
            return {};
        }
    }
}

// The status of an answer that begins with these bytes; 0 if they are not the head of an answer.
int status_of(std::string_view bytes) {
    constexpr std::string_view version = "HTTP/1.0 ";
    int status = 0;
    if (!bytes.starts_with(version) || bytes.find(head_end) == std::string_view::npos) {
        return 0;
    }
    bytes.remove_prefix(version.size());
    std::from_chars(bytes.data(), bytes.data() + bytes.size(), status);
    return status;
}

std::string refusal(int status) {
    if (status == 503) {
        return webfront_error(503,
                              "The machine is already making an archive, and makes one at a time; try "
                              "again when it is done.");
    }
    if (status == 0) {
        return webfront_error(502, "The daemon was asked for an archive, and did not answer.");
    }
    return webfront_error(
        502, "The daemon answered the request for an archive with status " + std::to_string(status) + ".");
}

void drop(int fd, size_t length) {
    std::string dropped(length, '\0');
    (void)recv(fd, dropped.data(), length, MSG_DONTWAIT);
}

}  // namespace

webfront_archive webfront_request_archive(const std::string& socket_path, webfront_browser_watch* browser,
                                          std::chrono::milliseconds daemon_time) {
    const clock::time_point until = clock::now() + daemon_time;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    unique_fd own(ends[0]);
    (void)setsockopt(own.get(), SOL_SOCKET, SO_RCVTIMEO, &silence_time, sizeof silence_time);
    unique_fd given(ends[1]);
    if (qorlink_send(socket_path.c_str(), request.data(), static_cast<int>(request.size()), given.get()) !=
        0) {
        return {{},
                webfront_error(502, "The daemon at " + socket_path + " did not take the request: " +
                                        std::generic_category().message(errno) + ".")};
    }
    given.reset();  // otherwise the daemon's end would not be the archive's
    const std::optional<std::string> start = wait_for_start(own.get(), browser, until);
    if (!start) {
        return {};
    }
    const int status = status_of(*start);
    if (status != 200) {
        return {{}, refusal(status)};
    }
    drop(own.get(), start->find(head_end) + head_end.size());
    return {std::move(own), {}};
}
