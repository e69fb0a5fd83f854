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
    unique_fd dir;  // the folder of the process, which keeps out others that get its pid
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

uint64_t ms_since_boot() {
    timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);  // the clock of a process's start time
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint32_t>(now.tv_nsec) / 1000000;
}

// Notes that the member in `v->name` could not be made. Returns false if the visit is to end: the process is
// gone, or a resource has run out.
bool note_failure(process_visit* v, int error) {
    const bool is_missing = error == ENOENT || error == ESRCH;
    if (is_missing && faccessat(v->dir.get(), "stat", F_OK, 0) == 0) {
        return true;  // the kernel has no such file, or the thread has ended
    }
    const bool ends = is_missing || is_exhaustion(error);
    if (ends) {
        v->name[v->process_at - 1] = '\0';  // the note is about the whole process
    }
    manifest_note(v->tar, v->name, is_missing ? ESRCH : error);
    return !ends;
}

// Stores the file, whose text is then in the buffer; empty if it cannot be read. Returns its length, or -1 if
// the visit is to end.
int store_file(process_visit* v, const char* file) {
    set_name(v, v->file_at, file);
    char* text = v->buffer->text;
    const ssize_t length = small_file_read(v->dir.get(), v->name + v->process_at, text, member_read_bound);
    text[std::max<ssize_t>(length, 0)] = '\0';
    if (length < 0) {
        return note_failure(v, errno) ? 0 : -1;
    }
    if (length > 0) {
        tar_store(v->tar, v->name, text, static_cast<size_t>(length));
    }
    return static_cast<int>(length);
}

template <size_t count>
bool store_files(process_visit* v, const char (&names)[count][8]) {
    for (const char* name : names) {
        if (store_file(v, name) < 0) {
            return false;
        }
    }
    return true;
}

bool store_threads(process_visit* v) {
    set_name(v, v->process_at, "task");
    pid_t threads[process_thread_limit + 1];
    int count = number_list(v->dir.get(), "task", threads, process_thread_limit + 1);
    if (count < 0) {
        return note_failure(v, errno);
    }
    if (count > process_thread_limit) {
        manifest_note(v->tar, v->name, E2BIG);
        count = process_thread_limit;
    }
    bool continues = true;
    for (int i = 0; i < count && continues; i++) {
        enter_folder(v, "task/", threads[i]);
        continues = store_files(v, thread_files);
    }
    v->file_at = v->process_at;
    return continues;
}

bool store_links(process_visit* v) {
    process_links* links = &v->buffer->links;
    set_name(v, v->file_at, "links");
    const int error = process_links_read(v->dir.get(), links);
    v->sample.descriptors = links->descriptors;
    if (error != 0 && !note_failure(v, error)) {
        return false;
    }
    if (links->length > 0) {
        tar_store(v->tar, v->name, links->text, links->length);
    }
    return true;
}

void remember(process_looks* looks, growing_bytes* where, const void* bytes, size_t length) {
    if (!growing_append(where, bytes, length)) {
        looks->error = ENOMEM;
    }
}

// The buffer holds `length` bytes of the command line, whose arguments end in NULs.
void remember_command(process_visit* v, size_t length) {
    process_sample* sample = &v->sample;
    char* text = v->buffer->text;
    length = std::min(length, longest_command);
    while (length > 0 && text[length - 1] == '\0') {
        length--;
    }
    std::replace(text, text + length, '\0', ' ');
    sample->command_at = static_cast<uint32_t>(v->looks->commands.length);
    sample->command_length = static_cast<uint32_t>(length);
    remember(v->looks, &v->looks->commands, text, length);
}

// Stores the files from which the sample is made, then the others. A process is in the table only if its
// visit reached its command line.
void store_process(process_visit* v) {
    process_sample* sample = &v->sample;
    sample->taken_ms = ms_since_boot();
    if (store_file(v, "stat") < 0) {
        return;
    }
    const bool is_known = proc_stat_parse(v->buffer->text, &sample->stat);
    if (store_file(v, "status") < 0) {
        return;
    }
    sample->uid = proc_status_uid(v->buffer->text);
    if (!store_files(v, files) || !store_threads(v) || !store_links(v)) {
        return;
    }
    const int length = store_file(v, "cmdline");
    if (length < 0) {
        return;
    }
    if (is_known) {
        remember_command(v, static_cast<size_t>(length));
        remember(v->looks, &v->looks->samples[v->looks->count & 1], sample, sizeof *sample);
    }
    (void)store_file(v, "maps");
}

void visit_process(process_visit* v, pid_t pid) {
    const size_t folder_at = v->process_at;
    enter_folder(v, "", pid);
    v->process_at = v->file_at;
    v->sample = {};
    v->sample.pid = pid;
    v->dir = unique_fd(open(proc_path(pid, "", v->looks->root).text, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (v->dir) {
        store_process(v);
    } else {
        (void)note_failure(v, errno);
    }
    v->process_at = folder_at;
}

// Visits all processes. Returns 0, or the errno with which the whole look failed.
int visit_processes(process_visit* v) {
    if (!v->buffer) {
        return ENOMEM;
    }
    pid_t pids[process_look_limit + 1];
    const int count = number_list(AT_FDCWD, v->looks->root, pids, process_look_limit + 1);
    if (count < 0) {
        return errno;
    }
    if (count > process_look_limit) {
        manifest_note(v->tar, v->name, E2BIG);
    }
    set_name(v, v->process_at - 1, "/");
    for (int i = 0; i < std::min(count, process_look_limit) && v->tar->error == 0; i++) {
        visit_process(v, pids[i]);
    }
    return 0;
}

}  // namespace

int stream_process_look(tar_handle* t, process_looks* looks) {
    const unique_malloc<look_buffer> buffer(static_cast<look_buffer*>(malloc(sizeof(look_buffer))));
    process_visit v = {};
    v.tar = t;
    v.looks = looks;
    v.buffer = buffer.get();
    const int length = snprintf(v.name, sizeof v.name, "processes.%s", time_stamp_now().text);
    v.process_at = static_cast<size_t>(length) + 1;
    const int error = visit_processes(&v);
    if (error != 0) {
        manifest_note(t, v.name, error);
        looks->error = error;
    }
    looks->count++;
    return t->error != 0 ? 1 : 0;
}
