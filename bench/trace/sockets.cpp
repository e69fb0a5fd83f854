// bench_trace_sockets COUNT ROUNDS: opens COUNT connected TCP sockets over loopback, and writes one byte to
// each of them, ROUNDS times.
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace {

bool add_pair(int listener, const sockaddr_in& address, std::vector<int>* sockets) {
    int near = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (near < 0 || connect(near, reinterpret_cast<const sockaddr*>(&address), sizeof address) < 0) {
        return false;
    }
    int far = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    sockets->push_back(near);
    sockets->push_back(far);
    return far >= 0;
}

bool open_sockets(size_t count, std::vector<int>* sockets) {
    rlimit files = {count + 64, count + 64};
    setrlimit(RLIMIT_NOFILE, &files);
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener < 0 || bind(listener, reinterpret_cast<const sockaddr*>(&address), length) < 0 ||
        listen(listener, 16) < 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) < 0) {
        return false;
    }
    while (sockets->size() < count) {
        if (!add_pair(listener, address, sockets)) {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    std::vector<int> sockets;
    if (!open_sockets(strtoul(argv[1], nullptr, 10), &sockets)) {
        return 1;
    }
    for (long round = strtol(argv[2], nullptr, 10); round > 0; round--) {
        for (int fd : sockets) {
            if (write(fd, "x", 1) != 1) {
                return 1;
            }
        }
    }
    return 0;
}
