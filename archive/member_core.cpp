#include "archive/member_core.h"

#include <stdio.h>
#include <string.h>

#include "archive/member_copy.h"
#include "archive/member_fdmap.h"
#include "archive/member_name.h"
#include "archive/output.h"
#include "archive/phase.h"
#include "common/proc_path.h"
#include "common/small_file.h"
#include "dump/dumper.h"
#include "proc/proc_list.h"

namespace {

// The file name of a program as its command line begins.
struct program_name {
    char command[81];
    const char* text;
};

// Empty for a process without a command line, "unknown" for one whose command line cannot be read.
void read_program_name(pid_t pid, program_name* name) {
    name->text = "unknown";
    if (small_file_text(proc_path(pid, "cmdline").text, name->command, sizeof name->command) >= 0) {
        const char* slash = strrchr(name->command, '/');
        name->text = slash ? slash + 1 : name->command;
    }
}

void drop_covered(control_line line, pid_t* pids, int index, int count) {
    for (pid_t covered; control_line_next_pid(&line, &covered);) {
        proc_plist_remove_pid(pids, index, count, covered);
    }
}

bool write_to_archive(void* cookie, const void* data, size_t length) {
    return output_write(static_cast<tar_handle*>(cookie), data, length);
}

// Copies the announced core, and zero bytes for what is missing; 0 or dump_client_gone.
int copy_core(dump_run* run, tar_handle* t, const char* name, int core_length) {
    tar_addfile(t, name, core_length);
    const int64_t copied = dump_copy_core(run, {write_to_archive, t, core_length});
    phase_progress();  // the end of the core may come long after its last byte
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
            (void)output_pad(t, core_length - member_size(copied));  // a broken output shows in the handle
        }
        dump_show(run);
    }
    tar_fakewrite(t, static_cast<size_t>(core_length));
    phase_progress();  // what is waited for from now on is the dumper's end, which has a time of its own
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
    phase_progress();
    (void)end_dump(run);
}

// Reads what the dumper announces. The dumper's patience holds for each of its steps, so each is a progress.
control_line read_line(dump_run* run, control_text* text) {
    const bool is_read = dump_read_control(run, text);
    phase_progress();
    return is_read ? control_line_parse(text->line()) : control_line();
}

}  // namespace

int dump_one(tar_handle* t, int fd, pid_t* pids, int index, int count) {
    pid_t pid = pids[index];
    dump_run run;
    if (!dump_start(pid, &run)) {
        return 0;
    }
    program_name program;
    read_program_name(pid, &program);
    control_text text;
    const control_line line = read_line(&run, &text);
    drop_covered(line, pids, index, count);
    if (line.core_length == 0) {
        give_up(&run);
        return 0;
    }
    const member_name core = member_name_of_process(t, program.text, pid, "core");
    int result = copy_core(&run, t, core.text, line.core_length);
    if (end_dump(&run)) {
        phase_progress();
        const member_name map = member_name_of_process(t, program.text, pid, "fdmap");
        proc_append_fdmap(t, map.text, pid, fd);
    }
    return result;
}
