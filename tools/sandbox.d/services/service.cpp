#include "tools/sandbox.d/services/service.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>
#include <thread>

namespace {

using namespace std::chrono_literals;

// A service that looks for another one which is only starting looks again after this pause.
constexpr auto find_pause = 50ms;

std::string port_file(const std::string& name) {
    return "/run/" + name + ".port";
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

const sockaddr* generic(const sockaddr_in& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

void service_fail(const char* what) {
    fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what, strerror(errno));
    exit(1);
}

int service_check(int result, const char* what) {
    if (result < 0) {
        service_fail(what);
    }
    return result;
}

unique_fd service_bind(int type) {
    unique_fd fd(service_check(socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket"));
    const sockaddr_in address = loopback(0);
    service_check(bind(fd.get(), generic(address), sizeof address), "bind");
    return fd;
}

void service_publish(int fd, const std::string& name) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    service_check(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), "getsockname");
    const std::string path = port_file(name);
    const std::string unfinished = path + ".new";
    std::ofstream(unfinished) << ntohs(address.sin_port) << '\n';
    service_check(rename(unfinished.c_str(), path.c_str()), path.c_str());
}

sockaddr_in service_find(const std::string& name) {
    uint16_t port = 0;
    while (!(std::ifstream(port_file(name)) >> port)) {
        std::this_thread::sleep_for(find_pause);
    }
    return loopback(port);
}

unique_fd service_connect(int type, const sockaddr_in& address) {
    unique_fd fd(service_check(socket(AF_INET, type | SOCK_CLOEXEC, 0), "socket"));
    if (connect(fd.get(), generic(address), sizeof address) < 0) {
        return {};
    }
    return fd;
}
