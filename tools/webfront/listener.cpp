#include "tools/webfront/listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

unique_fd webfront_listen(bool every_address, uint16_t* port) {
    unique_fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener) {
        return {};
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(*port);
    address.sin_addr.s_addr = htonl(every_address ? INADDR_ANY : INADDR_LOOPBACK);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t length = sizeof address;
    int on = 1;
    if (setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) < 0 ||
        bind(listener.get(), generic, length) < 0 || listen(listener.get(), SOMAXCONN) < 0 ||
        getsockname(listener.get(), generic, &length) < 0) {
        return {};
    }
    *port = ntohs(address.sin_port);
    return listener;
}
