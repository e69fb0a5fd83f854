#include "archive/member_processes.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <algorithm>

#include "archive/manifest.h"
#include "archive/member_file.h"
#include "archive/member_name.h"
#include "archive/process_links.h"
#include "common/exhaustion.h"
#include "common/small_file.h"
#include "common/time_stamp.h"
#include "proc/number_list.h"

namespace {

constexpr size_t longest_command = 200;

// Their reads do not need the lock of the process's memory map.
constexpr char files[][8] = {"wchan", "syscall", "stack", "io", "limits", "cgroup"};
constexpr char thread_files[][8] = {"stat", "status", "wchan"};

union look_buffer {
    char text[member_read_bound + 1];  // of a file; ends in a NUL
    process_links links;
};

// The visit of one process during a look.
struct process_visit {
    tar_handle* tar;
    process_looks* looks;
    look_buffer* buffer;
    bool has_ended;  // nothing more can be read: the process is gone, or a resource has run out
    int dir;         // the folder of the process, which keeps out others that get its pid
    process_sample sample;
    size_t process_at;  // where the path in `dir` begins in the member's name
    size_t file_at;     // where the file's name begins
    char name[longest_member_name + 1];
};

// Replaces what follows the first `at` bytes of the name. All our names are shorter than its capacity.
void set_name(process_visit* v, size_t at, const char* text) {
    snprintf(v->name + at, sizeof v->name - at, "%s", text);
}

// Appends "PREFIX" and "NUMBER/" to the name of the process's folder. Files are then named after it.
void enter_folder(process_visit* v, const char* prefix, pid_t number) {
    v->file_at =
        v->process_at + static_cast<size_t>(snprintf(v->name + v->process_at, sizeof v->name - v->process_at,
                                                     "%s%d/", prefix, static_cast<int>(number)));
}

uint32_t ms_since_boot() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);  // the clock of a process's start time
    return static_cast<uint32_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

// Notes that the member in `v->name` could not be made.
void note_failure(process_visit* v, int error) {
    const bool is_missing = error == ENOENT || error == ESRCH;
    char byte;
    if (is_missing && small_file_read(v->dir, "stat", &byte, sizeof byte) > 0) {
        return;  // the kernel has no such file, or the thread has ended
    }
    v->looks->is_partial |= is_exhaustion(error);
    if (is_missing || is_exhaustion(error)) {
        v->has_ended = true;
        v->name[v->process_at - 1] = '\0';  // the note is about the whole process
    }
    manifest_note(v->tar, v->name, is_missing ? ESRCH : error);
}

// Stores the file, whose text is then in the buffer; empty if it cannot be read. Returns its length. Does
// nothing if the visit has ended.
size_t store_file(process_visit* v, const char* file) {
    char* text = v->buffer->text;
    text[0] = '\0';
    if (v->has_ended) {
        return 0;
    }
    set_name(v, v->file_at, file);
    const ssize_t length = small_file_read(v->dir, v->name + v->process_at, text, member_read_bound);
    if (length < 0) {
        note_failure(v, errno);
        return 0;
    }
    const size_t size = static_cast<size_t>(length);
    text[size] = '\0';
    if (size > 0) {
        tar_store(v->tar, v->name, text, size);
    }
    return size;
}

// number_list with a note, in the name of `v->name`, if there are more than `limit`.
int list_numbers(process_visit* v, int dir_fd, const char* path, pid_t* numbers, int limit) {
    const int count = number_list(dir_fd, path, numbers, limit + 1);
    if (count > limit) {
        manifest_note(v->tar, v->name, E2BIG);
        return limit;
    }
    return count;
}

void store_threads(process_visit* v) {
    if (v->has_ended) {
        return;
    }
    pid_t threads[process_thread_limit + 1];
    set_name(v, v->process_at, "task");
    const int count = list_numbers(v, v->dir, "task", threads, process_thread_limit);
    if (count < 0) {
        note_failure(v, errno);
    }
    for (int i = 0; i < count; i++) {
        enter_folder(v, "task/", threads[i]);
        for (const char* name : thread_files) {
            (void)store_file(v, name);
        }
    }
    v->file_at = v->process_at;
}

void store_links(process_visit* v) {
    if (v->has_ended) {
        return;
    }
    process_links* links = &v->buffer->links;
    set_name(v, v->file_at, "links");
    process_links_read(v->dir, links);
    v->sample.descriptors = links->descriptors;
    if (links->error != 0) {
        note_failure(v, links->error);
    }
    if (links->length > 0 && !v->has_ended) {
        tar_store(v->tar, v->name, links->text, links->length);
    }
}

void remember(process_looks* looks, growing_bytes* where, const void* bytes, size_t length) {
    if (!growing_append(where, bytes, length)) {
        looks->error = ENOMEM;
    }
}

// The buffer holds `length` bytes of the command line, whose arguments end in NULs. Kernel threads have none.
void remember_command(process_visit* v, size_t length) {
    process_sample* sample = &v->sample;
    char* text = v->buffer->text;
    if (length == 0) {
        length = static_cast<size_t>(snprintf(text, longest_command, "[%s]", sample->stat.name));
    }
    length = std::min(length, longest_command);
    while (text[length - 1] == '\0' && length > 1) {
        length--;
    }
    std::replace(text, text + length, '\0', ' ');
    sample->command_at = static_cast<uint32_t>(v->looks->commands.length);
    sample->command_length = static_cast<uint32_t>(length);
    remember(v->looks, &v->looks->commands, text, length);
}

// Stores everything of a process. Only a process whose visit reached its command line is remembered.
void store_process(process_visit* v) {
    process_sample* sample = &v->sample;
    sample->taken_ms = ms_since_boot();
    (void)store_file(v, "stat");
    const bool is_known = proc_stat_parse(v->buffer->text, &sample->stat);
    (void)store_file(v, "status");
    sample->uid = proc_status_uid(v->buffer->text);
    // The kernel updates the count in "stat" later than this one.
    const uint32_t page_kb = static_cast<uint32_t>(sysconf(_SC_PAGESIZE)) / 1024;
    sample->resident_kb =
        proc_status_number(v->buffer->text, "\nVmRSS:", sample->stat.resident_pages * page_kb);
    for (const char* name : files) {
        (void)store_file(v, name);
    }
    store_threads(v);
    store_links(v);
    const size_t length = store_file(v, "cmdline");
    if (is_known && !v->has_ended) {
        remember_command(v, length);
        remember(v->looks, &v->looks->samples[v->looks->count & 1], sample, sizeof *sample);
    }
    (void)store_file(v, "maps");
}

void visit_process(process_visit* v, pid_t pid) {
    const size_t folder_at = v->process_at;
    enter_folder(v, "", pid);
    v->process_at = v->file_at;
    v->has_ended = false;
    v->sample.pid = pid;
    const unique_fd dir(open(proc_path(pid, "", v->looks->root).text, O_PATH | O_DIRECTORY | O_CLOEXEC));
    v->dir = dir.get();
    if (dir) {
        store_process(v);
    } else {
        note_failure(v, errno);
    }
    v->process_at = folder_at;
}

}  // namespace

int stream_process_look(tar_handle* t, process_looks* looks) {
    process_visit v = {};
    v.tar = t;
    v.looks = looks;
    const int length = snprintf(v.name, sizeof v.name, "processes.%s", time_stamp_now().text);
    v.process_at = static_cast<size_t>(length) + 1;
    const unique_malloc<look_buffer> buffer(static_cast<look_buffer*>(malloc(sizeof(look_buffer))));
    v.buffer = buffer.get();
    pid_t pids[process_look_limit + 1];
    const int count = buffer ? list_numbers(&v, AT_FDCWD, looks->root, pids, process_look_limit) : -1;
    if (count < 0) {
        looks->error = errno;
        manifest_note(t, v.name, errno);
    }
    looks->is_partial |= count == process_look_limit;
    v.name[length] = '/';
    for (int i = 0; i < count && t->error == 0; i++) {
        visit_process(&v, pids[i]);
    }
    looks->count++;
    return t->error != 0 ? 1 : 0;
}
