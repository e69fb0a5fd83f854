#include "archive/member_core.h"

#include <stdio.h>
#include <string.h>

#include "archive/member_fdmap.h"
#include "archive/phase.h"
#include "dump/dumper.h"
#include "proc/proc_list.h"

namespace {

// The folder of a process's members, with room for a member's name behind it.
struct member_name {
    static constexpr size_t folder_room = 90;
    char text[100];
    size_t folder_length;

    const char* of(const char* file) {
        snprintf(text + folder_length, sizeof text - folder_length, "%s", file);
        return text;
    }
};

// "NAME.PID/", NAME being the file name of the program as its command line begins; empty for a process
// without one, "unknown" for one whose command line can't be read.
member_name name_of(pid_t pid) {
    char path[30];
    snprintf(path, sizeof path, "/proc/%d/cmdline", static_cast<int>(pid));
    char command[81];
    ssize_t length = read_file_once(path, command, sizeof command - 1);
    member_name name;
    const char* program = "unknown";
    if (length >= 0) {
        command[length] = '\0';
        const char* slash = strrchr(command, '/');
        program = slash ? slash + 1 : command;
    }
    snprintf(name.text, member_name::folder_room, "%s.%d/", program, static_cast<int>(pid));
    name.folder_length = strlen(name.text);
    return name;
}

void drop_covered(control_line line, pid_t* pids, int index, int count) {
    for (pid_t covered; control_line_next_pid(&line, &covered);) {
        proc_plist_remove_pid(pids, index, count, covered);
    }
}

// Copies the announced core; 0 or dump_client_gone.
int copy_core(dump_run* run, tar_handle* t, int fd, const char* name, int core_length) {
    tar_addfile(t, name, core_length);
    int64_t copied = dump_copy_core(run, fd, phase_progress);
    int result = 0;
    if (copied == core_length) {
        dump_discard(run);
    } else {
        if (copied < 0) {
            result = dump_client_gone;
            fputs("ABORT!\n", stderr);
        } else {
            fprintf(stderr, "WARNING: err=%d clen=%d pid=%d\n", static_cast<int>(copied), core_length,
                    static_cast<int>(run->pid));
        }
        dump_show(run);
    }
    // Counts what was promised whatever was copied; deliberate.
    tar_fakewrite(t, static_cast<size_t>(core_length));
    return result;
}

bool end_dump(dump_run* run) {
    if (dump_end(run)) {
        return true;
    }
    // Without a line's end; deliberate.
    fprintf(stderr, "dump error for pid %d", static_cast<int>(run->pid));
    return false;
}

void give_up(dump_run* run) {
    fprintf(stderr, "%s: failed dumping pid=%d\n", "dump_one", static_cast<int>(run->pid));
    dump_discard(run);
    (void)end_dump(run);
}

}  // namespace

int dump_one(tar_handle* t, int fd, pid_t* pids, int index, int count) {
    pid_t pid = pids[index];
    dump_run run;
    if (!dump_start(pid, &run)) {
        return 0;
    }
    member_name name = name_of(pid);
    control_text text;
    control_line line;
    if (dump_read_control(&run, &text)) {
        line = control_line_parse(text.line());
        drop_covered(line, pids, index, count);
    }
    if (line.core_length == 0) {
        give_up(&run);
        return 0;
    }
    int result = copy_core(&run, t, fd, name.of("core"), line.core_length);
    if (end_dump(&run)) {
        proc_append_fdmap(t, name.of("fdmap"), pid, fd);
    }
    return result;
}
