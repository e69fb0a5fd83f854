#include "archive/member_core.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "archive/manifest.h"
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

// A silent step of a dumper may take its whole timeout, and the phase sees progress only when it ends.
static_assert(dump_default_timeout_ms < 1000 * static_cast<int>(phase_seconds));

struct program_name {
    char text[81];
};

// Returns the file name in the first argument of `pid`'s command line. Empty if the process has no command
// line, "unknown" if that cannot be read.
program_name read_program_name(pid_t pid) {
    char command[sizeof program_name::text];
    if (small_file_text(proc_path(pid, "cmdline").text, command, sizeof command) < 0) {
        return {"unknown"};
    }
    const char* slash = strrchr(command, '/');
    program_name name;
    snprintf(name.text, sizeof name.text, "%s", slash ? slash + 1 : command);
    return name;
}

void remove_covered(control_line line, pid_t* pids, int index, int count) {
    for (pid_t covered; control_line_next_pid(&line, &covered);) {
        proc_plist_remove_pid(pids, index, count, covered);
    }
}

bool write_to_archive(void* cookie, const void* data, size_t length) {
    return output_write(static_cast<tar_handle*>(cookie), data, length);
}

// Stores the announced core and pads a short one with zero bytes. Returns 0 or dump_client_gone.
int store_core(dump_run* run, tar_handle* t, const char* name, int core_length) {
    tar_addfile(t, name, core_length);
    const int64_t copied = dump_copy_core(run, {write_to_archive, t, core_length});
    phase_progress();  // end of file may come long after the last byte
    int result = 0;
    if (copied == core_length) {
        dump_discard(run);
    } else {
        if (copied < 0) {
            result = dump_client_gone;
            fputs("ABORT!\n", stderr);
        } else {
            manifest_note(t, name, ENODATA);
            fprintf(stderr, "WARNING: err=%d clen=%d pid=%d\n", static_cast<int>(copied), core_length,
                    static_cast<int>(run->pid));
            (void)output_pad(t, core_length - member_size(copied));  // the handle keeps its error
        }
        dump_show(run);
    }
    tar_fakewrite(t, static_cast<size_t>(core_length));
    phase_progress();  // next comes the dumper's exit, which has a timeout of its own
    return result;
}

bool end_dump(dump_run* run) {
    if (dump_end(run)) {
        return true;
    }
    // The missing newline is deliberate.
    fprintf(stderr, "dump error for pid %d", static_cast<int>(run->pid));
    return false;
}

void abandon(dump_run* run) {
    fprintf(stderr, "%s: failed dumping pid=%d\n", "dump_one", static_cast<int>(run->pid));
    dump_discard(run);
    phase_progress();
    (void)end_dump(run);
}

// Returns an empty line, which announces no core, if the dumper wrote none. The result refers to `text`.
control_line read_control_line(dump_run* run, control_text* text) {
    const bool has_line = dump_read_control(run, text);
    phase_progress();
    return has_line ? control_line_parse(text->line()) : control_line();
}

}  // namespace

int dump_one(tar_handle* t, int fd, pid_t* pids, int index, int count) {
    pid_t pid = pids[index];
    dump_run run;
    const program_name program = read_program_name(pid);
    const member_name core_name = member_name_of_process(t, program.text, pid, "core");
    if (!dump_start(pid, &run)) {
        manifest_note(t, core_name.text, errno);
        return 0;
    }
    control_text text;
    const control_line line = read_control_line(&run, &text);
    remove_covered(line, pids, index, count);
    if (line.core_length == 0) {
        manifest_note(t, core_name.text, kill(pid, 0) < 0 ? errno : EIO);
        abandon(&run);
        return 0;
    }
    const int result = store_core(&run, t, core_name.text, line.core_length);
    if (end_dump(&run)) {
        phase_progress();
        const member_name map_name = member_name_of_process(t, program.text, pid, "fdmap");
        proc_append_fdmap(t, map_name.text, pid, fd);
    }
    return result;
}
