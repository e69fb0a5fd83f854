// Addresses of Unix sockets in the file system.
#pragma once

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <string_view>

class unix_address {
public:
    static constexpr size_t capacity = sizeof sockaddr_un::sun_path;

    // Of a path longer than `capacity`, the address holds only the beginning.
    explicit unix_address(std::string_view path) : has_whole_path_(path.size() < capacity) {
        memcpy(address_.sun_path, path.data(), std::min(path.size(), capacity));
    }

    // True if the address holds the whole path and a NUL after it. The kernel also takes one without the NUL.
    bool has_whole_path() const { return has_whole_path_; }

    // What bind(2) and connect(2) take.
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address_); }
    static constexpr socklen_t size() { return sizeof(sockaddr_un); }

private:
    sockaddr_un address_ = {.sun_family = AF_UNIX, .sun_path = {}};
    bool has_whole_path_;
};
