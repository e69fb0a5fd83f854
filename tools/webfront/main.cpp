// webfront: a small HTTP front on 127.0.0.1 for a machine without the device's web server. It reads the head
// of each request and passes the connection to the daemon, which answers on it.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>

#include "tools/webfront/listener.h"
#include "tools/webfront/options.h"
#include "tools/webfront/server.h"

namespace {

void end_at_once(int) {
    _exit(0);
}

void set_signals() {
    struct sigaction action = {};
    action.sa_handler = end_at_once;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

int report_listen_failure(uint16_t port) {
    if (errno == EADDRINUSE) {
        fprintf(stderr,
                "webfront: Another program listens on 127.0.0.1:%u; choose another port with --port.\n",
                port);
    } else {
        fprintf(stderr, "webfront: Could not listen on 127.0.0.1:%u: %s.\n", port, strerror(errno));
    }
    return 1;
}

std::string reader_path(const webfront_options& options) {
    if (!options.reader_path.empty()) {
        return options.reader_path;
    }
    std::error_code error;
    const auto own = std::filesystem::read_symlink("/proc/self/exe", error);
    return (own.parent_path() / "archiveview").string();
}

int run(int argc, char** argv) {
    webfront_options options;
    std::string wrong = webfront_parse(argc, argv, &options);
    if (!wrong.empty()) {
        fprintf(stderr, "webfront: %s\n%s", wrong.c_str(), webfront_usage);
        return 2;
    }
    if (options.help) {
        fputs(webfront_usage, stdout);
        return 0;
    }
    set_signals();
    uint16_t port = options.port;
    unique_fd listener = webfront_listen(options.forwarded_port != 0, &port);
    if (!listener) {
        return report_listen_failure(port);
    }
    if (options.forwarded_port != 0) {
        port = options.forwarded_port;
    }
    printf("http://127.0.0.1:%u/\n", port);
    fflush(stdout);
    webfront_serve(std::move(listener), port, options.socket_path, reader_path(options));
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "webfront: Out of resources: %s.\n", error.what());
        return 1;
    }
}
