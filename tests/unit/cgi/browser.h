// A browser, and the requests that it makes to the daemon.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <string_view>

#include "cgi/request.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

inline constexpr std::string_view broken_server_answer =
    "HTTP/1.0 500 Internal Server Error\r\n"
    "Content-Type: text/plain\r\n"
    "\r\n"
    "The server encountered an internal error and could not complete the request\n";
inline constexpr std::string_view bad_request_answer =
    "HTTP/1.0 400 Bad Request\r\n"
    "Content-Type: text/plain\r\n"
    "\r\n"
    "The request has bad syntax or was inherently impossible to satisfy\n";
inline constexpr std::string_view busy_answer =
    "HTTP/1.0 503 Service Unavailable\r\n"
    "Cache-Control: no-cache\r\n"
    "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
    "Content-Type: text/html\r\n"
    "\r\n"
    "<HTML><HEAD></HEAD>\r\n"
    "<BODY>\r\n"
    "Another Crash Report generation is in progress. Please try again later ...\r\n"
    "</BODY></HTML>\r\n"
    "\r\n";

// The expected header of a download.
inline std::string download_head(std::string_view type, std::string_view name) {
    std::string head = "HTTP/1.0 200 OK\r\nCache-Control: no-cache\r\n";
    head += "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\nContent-Type: ";
    head.append(type).append("\r\nContent-Disposition: attachment; filename=\"");
    head.append(name).append("\"\r\n\r\n");
    return head;
}

inline std::string dump_head(std::string_view name) {
    return download_head("application/octet-stream", name);
}

// `length` bytes without equal blocks.
inline std::string odd_bytes(size_t length) {
    std::string bytes(length, '\0');
    for (size_t i = 0; i < length; i++) {
        bytes[i] = static_cast<char>((i * 7 + i / 251) % 256);
    }
    return bytes;
}

// Reads `fd` to its end, which must come within `limit`.
inline std::string read_until_end(int fd, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    std::string all;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        pollfd waiting = {fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&waiting, 1, static_cast<int>(left.count())) <= 0) {
            ADD_FAILURE() << "the connection stays open after " << all.size() << " bytes";
            return all;
        }
        char block[65536];
        ssize_t got = read(fd, block, sizeof block);
        if (got <= 0) {
            return all;
        }
        all.append(block, static_cast<size_t>(got));
    }
}

// One browser's connection. The daemon's end can be released once.
class browser {
public:
    browser() { signal(SIGPIPE, SIG_IGN); }

    int own_end() const { return ends_.a.get(); }
    int daemon_end() const { return ends_.b.get(); }
    int hand_over() { return ends_.b.release(); }
    void go_away() { ends_.a.reset(); }
    void drop_daemon_end() { ends_.b.reset(); }

    // Reads everything that the daemon writes until it closes the connection.
    std::string answer() const { return read_until_end(own_end()); }

    // True if the connection is open and nothing has been written.
    bool is_waiting() const {
        pollfd waiting = {own_end(), POLLIN, 0};
        return poll(&waiting, 1, 0) == 0;
    }

private:
    test_socketpair ends_;
};

inline std::string request_message(std::string_view path, std::string_view query) {
    return std::string(path) + '\0' + std::string(query);
}

// Serves one message as the listener does, with a zero byte after it.
inline void serve_message(browser& from, std::string message) {
    pre_process_request(from.hand_over(), message.data(), static_cast<int>(message.size()));
}

inline void serve(browser& from, std::string_view path, std::string_view query) {
    serve_message(from, request_message(path, query));
}
