// sockets PATH: connects to itself over loopback and at PATH, sends "hello" in both directions, and prints
// its ports: "LISTENER CLIENT".
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool exchange(int near, int far) {
    char got[5];
    return sendto(near, "hello", 5, 0, nullptr, 0) == 5 && recvfrom(far, got, 5, 0, nullptr, nullptr) == 5;
}

int port_of(int fd) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    return getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 ? ntohs(address.sin_port)
                                                                                : -1;
}

bool over_loopback() {
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), length) < 0 || listen(listener, 1) < 0) {
        return false;
    }
    address.sin_port = htons(static_cast<uint16_t>(port_of(listener)));
    int near = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(near, reinterpret_cast<sockaddr*>(&address), length) < 0) {
        return false;
    }
    int far = accept(listener, nullptr, nullptr);
    printf("%d %d\n", port_of(listener), port_of(near));
    return exchange(near, far) && exchange(far, near) && shutdown(near, SHUT_WR) == 0;
}

bool at_path(const char* path) {
    int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0 ||
        listen(listener, 1) < 0) {
        return false;
    }
    int near = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(near, reinterpret_cast<sockaddr*>(&address), sizeof address) < 0) {
        return false;
    }
    int far = accept(listener, nullptr, nullptr);
    return exchange(near, far) && exchange(far, near);
}

}  // namespace

int main(int argc, char** argv) {
    return argc == 2 && over_loopback() && at_path(argv[1]) ? 0 : 1;
}
