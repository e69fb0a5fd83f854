#include "archive/debug_archive.h"

#include <errno.h>
#include <stdio.h>

#include <atomic>

#include "archive/manifest.h"
#include "archive/member_capture.h"
#include "archive/member_core.h"
#include "archive/member_dmesg.h"
#include "archive/member_file.h"
#include "archive/member_proc.h"
#include "archive/member_processes.h"
#include "archive/member_program.h"
#include "archive/member_system.h"
#include "archive/member_trace.h"
#include "archive/phase.h"
#include "archive/process_table.h"
#include "archive/tar.h"
#include "common/time_stamp.h"
#include "common/watchdog.h"
#include "proc/proc_list.h"

namespace {

constexpr int process_limit = 1024;
constexpr int capture_seconds = 5;
constexpr unsigned capture_bytes = 512000;

// How many archives this process has begun.
std::atomic<unsigned> archive_count{0};

// The archive that is being made.
struct archive_run {
    tar_handle* tar;
    int fd;
    int browser_fd;
    archive_form form;
    // Of a full archive.
    manifest list;
    process_looks looks;
    pid_t pids[process_limit];
    int pid_count;
};

// Status, configuration and /proc fail if memory or descriptors run out. The members after them may still
// succeed, so these failures do not end the archive.
int store_monitor_status(archive_run* run) {
    (void)stream_file_unknownsize(run->tar, run->fd, "dbg-monitor.txt", "/var/run/dbg-cgi/dbg-monitor.txt",
                                  0);
    return 0;
}

int store_media_configuration(archive_run* run) {
    (void)stream_file_unknownsize(run->tar, run->fd, "media.conf", "/etc/ws/onvif/media/media.conf", 0);
    return 0;
}

int store_proc(archive_run* run) {
    (void)stream_proc(run->tar, run->fd, run->form);
    return 0;
}

int store_system(archive_run* run) {
    return stream_system(run->tar);
}

int store_dmesg(archive_run* run) {
    return stream_dmesg(run->tar);
}

int store_process_look(archive_run* run) {
    return stream_process_look(run->tar, &run->looks);
}

int store_process_table(archive_run* run) {
    return stream_process_table(run->tar, &run->looks);
}

int store_trace(archive_run* run) {
    return stream_strace_log(run->tar, run->pids, run->pid_count, run->form == archive_form::full);
}

int store_capture(archive_run* run) {
    return stream_pcap_dump(run->tar, run->fd, "any", capture_seconds, capture_bytes, run->browser_fd,
                            run->form == archive_form::full);
}

int store_server_report(archive_run* run) {
    return stream_server_report(run->tar, run->fd);
}

int store_oopslog(archive_run* run) {
    return stream_oopslog(run->tar, run->fd);
}

int store_kcore(archive_run* run) {
    return stream_kcore(run->tar, run->fd);
}

// Never fails: if the client goes away during a dump, the archive is closed as after the last core.
int store_cores(archive_run* run) {
    for (int i = 0; i < run->pid_count && run->tar->error == 0; i++) {
        if (run->pids[i] == -1) {
            continue;
        }
        phase_begin();
        if (dump_one(run->tar, run->fd, run->pids, i, run->pid_count) == dump_client_gone) {
            break;
        }
    }
    return 0;
}

int store_manifest(archive_run* run) {
    manifest_store(&run->list, run->tar);
    return 0;
}

struct archive_member {
    bool only_full;
    bool begins_phase;
    int (*store)(archive_run* run);  // a result other than 0 ends the archive
};

// In the order of the archive.
// clang-format off
constexpr archive_member archive_members[] = {
    {false, false, store_monitor_status},
    {false, false, store_media_configuration},
    {true, true, store_system},
    {true, false, store_dmesg},
    {true, false, store_process_look},
    {false, false, store_proc},
    {false, false, store_trace},
    {false, true, store_capture},
    {false, true, store_server_report},
    {false, true, store_oopslog},
    {false, false, store_kcore},
    {false, false, store_proc},
    {true, true, store_process_look},
    {true, false, store_process_table},
    {false, false, store_cores},
    {true, true, store_manifest},
};
// clang-format on

bool store_members(archive_run* run) {
    for (const archive_member& member : archive_members) {
        if (run->tar->error != 0) {
            return false;
        }
        if (member.only_full && run->form != archive_form::full) {
            continue;
        }
        if (member.begins_phase) {
            phase_begin();
        }
        if (member.store(run) != 0) {
            return false;
        }
    }
    return true;
}

tar_handle* open_archive(int fd) {
    char top[128];
    snprintf(top, sizeof top, "debug-%s-c%d/", time_stamp_now().text, static_cast<int>(archive_count++));
    return tar_new(fd, top);
}

// Frees the handle; writes the last padding if all members were stored. Returns 0, or the errno of the first
// failure.
int end_archive(tar_handle* tar, bool is_complete) {
    if (is_complete) {
        return tar_close(tar);
    }
    const int error = tar->error;
    tar_abandon(tar);
    return error != 0 ? error : EPIPE;
}

int write_archive(archive_run* run) {
    if (run->form == archive_form::full) {
        manifest_begin(&run->list, run->tar);
    }
    const bool is_complete = store_members(run);
    manifest_abandon(run->tar);
    return end_archive(run->tar, is_complete);
}

}  // namespace

int stream_debug_archive(int fd, int skip_pid, int browser_fd, archive_form form) {
    phase_begin();
    (void)disable_watchdogs();  // it reports its own failure; the archive is made anyway
    archive_run run;
    run.fd = fd;
    run.browser_fd = browser_fd;
    run.form = form;
    run.pid_count = proc_list(run.pids, process_limit, skip_pid);
    run.tar = open_archive(fd);
    const int error = run.tar ? write_archive(&run) : ENOMEM;
    enable_watchdogs();
    phase_end();
    return error;
}
