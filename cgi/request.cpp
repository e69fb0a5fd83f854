#include "cgi/request.h"

#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "cgi/http.h"
#include "cgi/query.h"
#include "cgi/waiting_browser.h"
#include "cgi/worker.h"
#include "cgi/worker_archive.h"
#include "cgi/worker_pcap.h"
#include "cgi/worker_ps.h"
#include "cgi/worker_rtrace.h"
#include "cgi/worker_strace.h"
#include "common/proc_path.h"
#include "common/unique_fd.h"
#include "dump/coredump.h"
#include "platform/vextor.h"
#include "proc/proc_list.h"

namespace {

constexpr int pids_of_one_name = 32;

void answer_fixed(const unique_fd& client, std::string_view answer) {
    http_write_fixed(client.get(), answer);
}

// Starts a worker with the record and the client. If that fails, answers the client and returns false. The
// parameters have been copied by now and are released.
template <typename Record>
bool start_worker(unique_fd client, unique_worker_record<Record> record, void* (*entry)(void*)) {
    CGI_cleanup();
    if (record) {
        record->client = std::move(client);
        if (worker_start(entry, record.get())) {
            (void)record.release();
            return true;
        }
        client = std::move(record->client);
    }
    answer_fixed(client, http_server_error);
    return false;
}

// The process that `text` gives by number or by name; negative if there is none.
pid_t wanted_pid(const char* text) {
    pid_t pid = query_number(text);
    if (pid != -1) {
        return pid;
    }
    char name[256];
    std::string_view wanted = query_trimmed(text).substr(0, sizeof name - 1);
    name[wanted.copy(name, wanted.size())] = '\0';
    int count = 0;
    proc_find_pid_by_name(proc_root, name, &pid, &count, 1);
    return count > 0 ? pid : -1;
}

bool is_alive(pid_t pid) {
    return kill(pid, 0) == 0;
}

void request_coredump(unique_fd client) {
    const char* text = CGI_get_value("pid");
    if (!text) {
        // Waits for a pushed core, or for a stored one if the last such request asked for that; deliberate.
        set_listener(std::move(client));
        CGI_cleanup();
        return;
    }
    pid_t pid = wanted_pid(text);
    if (pid < 0 || !is_alive(pid)) {
        answer_fixed(client, http_bad_request);
    } else {
        // On the listener's thread, so there is one such dump at a time.
        (void)stream_http_header(client.get(), "application/octet-stream", "core");
        coredump(client.get(), pid);
    }
    client.reset();
    CGI_cleanup();
}

void request_pcapdump(unique_fd client) {
    auto record = worker_new_record<pcap_request>();
    if (record) {
        record->duration = query_limit(CGI_get_value("duration"));
        record->total_size = query_limit(CGI_get_value("totalsize"));
        record->exact = query_limit(CGI_get_value("exact")) != 0;
        const char* interface = CGI_get_value("interface");
        std::string_view name = interface ? interface : "";
        (void)name.copy(record->interface, pcap_request::interface_capacity - 1);
    }
    start_worker(std::move(client), std::move(record), run_pcap_request);
}

void request_ps(unique_fd client) {
    CGI_cleanup();
    // The connection is the whole record.
    void* argument =
        reinterpret_cast<void*>(static_cast<intptr_t>(client.get()));  // NOLINT(performance-no-int-to-ptr)
    if (worker_start(run_ps_request, argument)) {
        (void)client.release();
    } else {
        answer_fixed(client, http_server_error);
    }
}

// Adds the processes that one item of the list names.
void add_wanted_pids(const char* item, strace_request* record) {
    pid_t found[pids_of_one_name];
    int count = 0;
    pid_t pid = query_number(item);
    if (pid == -1) {
        proc_find_pid_by_name(proc_root, item, found, &count, pids_of_one_name);
    } else if (is_alive(pid)) {
        found[count++] = pid;
    }
    for (int i = 0; i < count && record->pid_count < strace_request::capacity; i++) {
        record->pids[record->pid_count++] = found[i];
    }
}

void select_pids(const char* list, strace_request* record) {
    if (!list) {
        record->pid_count = proc_list(record->pids, strace_request::capacity, getpid());
        return;
    }
    std::string_view rest = list;
    for (query_item item; record->pid_count < strace_request::capacity && query_next_item(&rest, &item);) {
        add_wanted_pids(item.text, record);
    }
}

void request_strace(unique_fd client) {
    auto record = worker_new_record<strace_request>();
    if (record) {
        record->timed = query_limit(CGI_get_value("times")) > 0;
        select_pids(CGI_get_value("pid"), record.get());
        if (record->pid_count == 0) {
            CGI_cleanup();
            answer_fixed(client, http_bad_request);
            return;
        }
    }
    start_worker(std::move(client), std::move(record), run_strace_request);
}

void request_rtrace(unique_fd client) {
    constexpr int32_t default_interval = 10;
    auto record = worker_new_record<rtrace_request>();
    if (record) {
        const char* interval = CGI_get_value("interval");
        record->interval = interval ? query_number(interval) : default_interval;
        record->mask = query_trace_mask(CGI_get_value("trace"));
    }
    start_worker(std::move(client), std::move(record), run_rtrace_request);
}

// The values of "cmd". A longer value with the same beginning matches too; deliberate.
constexpr struct {
    std::string_view prefix;
    void (*serve)(unique_fd client);
} commands[] = {
    {"coredump", request_coredump}, {"pcapdump", request_pcapdump}, {"ps", request_ps},
    {"strace", request_strace},     {"rtrace", request_rtrace},
};

void request_command(unique_fd client, std::string_view cmd) {
    for (const auto& command : commands) {
        if (cmd.starts_with(command.prefix)) {
            command.serve(std::move(client));
            return;
        }
    }
    answer_fixed(client, http_bad_request);
}

void request_archive(unique_fd client, bool compress, archive_form form) {
    if (archive_busy) {
        stream_http_message(client.get(), "503 Service Unavailable",
                            "Another Crash Report generation is in progress. Please try again later ...");
        return;
    }
    archive_busy = 1;
    auto record = worker_new_record<archive_request>();
    if (record) {
        record->compress = compress;
        record->form = form;
    }
    if (!start_worker(std::move(client), std::move(record), run_archive_request)) {
        archive_busy = 0;
    }
}

// A request without a command: the path names a download, unless the query asks to wait for a dump.
void request_download(unique_fd client, std::string_view path, std::string_view query) {
    CGI_cleanup();
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        answer_fixed(client, http_server_error);
        return;
    }
    std::string_view name = path.substr(slash + 1);
    bool pop = query.starts_with("pop");
    if (pop || query.starts_with("listen")) {
        set_listener(std::move(client));
        set_pop(pop);
        return;
    }
    const bool compress = name.starts_with("debug.tgz") || name.starts_with("coredumps.tgz");
    const bool full = query.starts_with("full");
    request_archive(std::move(client), compress, full ? archive_form::full : archive_form::usual);
}

}  // namespace

void pre_process_request(int client_fd, char* message, int length) {
    unique_fd client(client_fd);
    const char* path_end = static_cast<const char*>(memchr(message, '\0', static_cast<size_t>(length)));
    if (!path_end) {
        answer_fixed(client, http_server_error);
        return;
    }
    const char* query = path_end + 1;
    CGI_set_query(query);
    CGI_save_env();
    if (const char* cmd = CGI_get_value("cmd")) {
        request_command(std::move(client), cmd);
    } else {
        request_download(std::move(client), message, query);
    }
}
