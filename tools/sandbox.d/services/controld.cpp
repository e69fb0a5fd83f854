// controld: answers HTTP requests with the state of the device, one connection at a time.
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "tools/sandbox.d/services/service.h"

namespace {

constexpr int waiting_connections = 8;
constexpr timeval request_time = {2, 0};
constexpr size_t request_limit = 2048;

std::string first_line(const char* path) {
    std::string line;
    std::getline(std::ifstream(path), line);
    return line;
}

std::string state() {
    return "uptime " + first_line("/proc/uptime") + "\nload " + first_line("/proc/loadavg") + "\n";
}

// Reads until the end of the head. Returns false if it does not come.
bool read_request(int fd) {
    std::string head;
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < request_limit) {
        char piece[512];
        const ssize_t got = TEMP_FAILURE_RETRY(recv(fd, piece, sizeof piece, 0));
        if (got <= 0) {
            return false;
        }
        head.append(piece, static_cast<size_t>(got));
    }
    return head.starts_with("GET ");
}

void serve(int fd) {
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &request_time, sizeof request_time);
    if (!read_request(fd)) {
        return;
    }
    const std::string body = state();
    const std::string answer =
        "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
        "\r\n\r\n" + body;
    (void)send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
}

}  // namespace

int main() {
    const unique_fd listener = service_bind(SOCK_STREAM);
    service_check(listen(listener.get(), waiting_connections), "listen");
    service_publish(listener.get(), "controld");
    for (;;) {
        const unique_fd client(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client) {
            serve(client.get());
        } else if (errno != EINTR && errno != ECONNABORTED) {
            service_fail("accept");
        }
    }
}
