#include "dump/coredump_handler.h"

#undef NDEBUG  // release builds keep the assertion
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string_view>
#include <utility>

#include "common/safe_io.h"
#include "common/standard_fds.h"
#include "common/unique_fd.h"
#include "common/unix_address.h"
#include "platform/mirnel.h"

namespace {

constexpr size_t answer_size = 8;

// Numbers of words on the command line, with the applet's name.
constexpr int checked_words = 3;  // with this many or more, the command line is checked
constexpr int all_words = 5;

bool parse_decimal(const char* text, unsigned long long* number) {
    char* end = nullptr;
    errno = 0;
    *number = strtoull(text, &end, 10);
    return errno == 0 && end != text && *end == '\0';
}

// Returns null, or what is wrong with a command line that is long enough to be checked.
const char* check_words(int argc, char** argv, unsigned long long* size_limit) {
    if (argc < all_words) {
        return "wrong number of arguments";
    }
    if (*argv[4] == '\0') {
        return "executable name argument missing";
    }
    if (*argv[3] == '\0') {
        return "executable path argument missing";
    }
    if (*argv[2] == '\0') {
        return "core file size argument missing";
    }
    return parse_decimal(argv[2], size_limit) ? nullptr : "core file size limit parsing error";
}

struct cfg_closer {
    void operator()(mirnel_cfg* cfg) const { mirnel_closecfg(cfg); }
};
using unique_cfg = std::unique_ptr<mirnel_cfg, cfg_closer>;

bool begins_with(const char* text, std::string_view start) {
    return std::string_view(text).starts_with(start);
}

// Returns false if memory runs out.
bool keep_text(unique_malloc<char>* kept, const char* text) {
    const bool is_empty = *text == '\0';
    kept->reset(is_empty ? nullptr : strdup(text));
    return is_empty || *kept;
}

// Returns false if memory runs out.
bool apply_ftp_setting(core_upload_target* target, const mirnel_entry& entry) {
    if (begins_with(entry.key, "TargetURL")) {
        return keep_text(&target->url, entry.value);
    }
    if (begins_with(entry.key, "TargetPath")) {
        return keep_text(&target->path, entry.value);
    }
    if (begins_with(entry.key, "Timeout")) {
        target->timeout_s = strtol(entry.value, nullptr, 10);
    }
    return true;
}

// Reads entries up to the one that names the handler of cores. Returns false if it is missing.
bool find_handler(mirnel_cfg* cfg, mirnel_entry* entry) {
    while (mirnel_getcfg(cfg, entry) == 1) {
        if (strcmp(entry->key, "CoreHandler") == 0) {
            return true;
        }
    }
    return false;
}

bool connect_to(int sock, const char* path) {
    const unix_address address(path);
    return address.has_whole_path() && connect(sock, address.get(), address.size()) == 0;
}

// safe_copyfd would retry an unreadable descriptor forever.
bool is_readable(int fd) {
    char unused;
    return read(fd, &unused, 0) == 0;
}

bool is_disabled(const core_arguments& arguments) {
    long page_size = sysconf(_SC_PAGESIZE);
    assert(page_size > 0);
    return arguments.has_program && arguments.size_limit < static_cast<unsigned long>(page_size);
}

int forward_core() {
    unique_fd sock = cored_mgm_connect();
    if (!sock) {
        return 1;
    }
    // If no browser waits for the core, the daemon closes at once. That is not a failure.
    (void)safe_copyfd(STDIN_FILENO, sock.get());
    shutdown(sock.get(), SHUT_WR);  // the end of file that the daemon waits for
    cored_mgm_close(std::move(sock));
    return 0;
}

core_upload_result try_upload(const core_destination& destination, const char* file_name) {
    if (!destination.is_whole) {
        return {core_upload_outcome::failed, "out of memory"};
    }
    curl_library curl;
    if (const char* load_error = curl_load(curl_soname, &curl)) {
        return {core_upload_outcome::failed, load_error};
    }
    return core_upload(curl, destination.ftp, file_name);
}

int upload_core(const core_destination& destination, const char* file_name) {
    if (destination.is_whole && !destination.ftp.url) {
        syslog(LOG_ERR, "core not uploaded: %s has no TargetURL", core_config_path);
        return 1;
    }
    const core_upload_result result = try_upload(destination, file_name);
    if (result.outcome == core_upload_outcome::truncated) {
        syslog(LOG_WARNING, "coredump truncated.");
    } else if (result.outcome == core_upload_outcome::failed) {
        syslog(LOG_ERR, "core not uploaded: %s", result.reason);
    }
    return result.outcome == core_upload_outcome::stored ? 0 : 1;
}

}  // namespace

const char* core_arguments_parse(int argc, char** argv, core_arguments* arguments) {
    if (argc >= checked_words) {
        unsigned long long size_limit = 0;
        if (const char* message = check_words(argc, argv, &size_limit)) {
            return message;
        }
        arguments->has_program = true;
        arguments->size_limit = size_limit;
        arguments->path = argv[3];
        std::replace(argv[3], argv[3] + strlen(argv[3]), '!', '/');
        arguments->name = argv[4];
    }
    if (argc >= 2) {
        arguments->file_name = argv[1];
    }
    return nullptr;
}

core_destination core_destination_read(const char* config_path) {
    core_destination destination;
    unique_cfg cfg(mirnel_opencfg(config_path));
    mirnel_entry entry = {};
    if (!cfg || !find_handler(cfg.get(), &entry) || !begins_with(entry.value, "FTP")) {
        return destination;
    }
    destination.is_ftp = true;
    while (mirnel_getcfg(cfg.get(), &entry) == 1) {
        if (begins_with(entry.section, "CoreHandlerFtp")) {
            destination.is_whole = apply_ftp_setting(&destination.ftp, entry) && destination.is_whole;
        }
    }
    return destination;
}

unique_fd cored_mgm_connect(const char* path) {
    unique_fd sock(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!sock || !connect_to(sock.get(), path)) {
        fprintf(stderr, "connect to %s failed\n", path);
        return {};
    }
    return sock;
}

void cored_mgm_close(unique_fd sock) {
    pollfd answer = {sock.get(), POLLIN, 0};
    int ready = poll(&answer, 1, core_answer_timeout_ms);
    if (ready < 0) {
        perror("select()");
    } else if (ready > 0) {
        char bytes[answer_size];
        (void)read(sock.get(), bytes, sizeof bytes);  // its content has no meaning
    }
}

int run_coredump_handler(int argc, char** argv) {
    // The kernel opens only standard input. Without this, the daemon's socket could become descriptor 2, and
    // a line for standard error would be sent as part of the core. Write-only: if standard input is closed,
    // its replacement must not be readable either.
    standard_fds_fill(O_WRONLY | O_CLOEXEC);
    core_arguments arguments;
    if (const char* message = core_arguments_parse(argc, argv, &arguments)) {
        syslog(LOG_ERR, "%s", message);
        return 1;
    }
    if (is_disabled(arguments)) {
        syslog(LOG_INFO, "core dumps disabled for '%s/%s'", arguments.path, arguments.name);
        return 0;
    }
    if (!is_readable(STDIN_FILENO)) {
        syslog(LOG_ERR, "no core on standard input: %m");
        return 1;
    }
    core_destination destination = core_destination_read(core_config_path);
    return destination.is_ftp ? upload_core(destination, arguments.file_name) : forward_core();
}
