#include "tools/dcore/process.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/proc_path.h"
#include "common/unique_fd.h"
#include "tools/dcore/proc_text.h"

namespace {

constexpr uint64_t kernel_thread_flag = 0x00200000;  // PF_KTHREAD
constexpr uint64_t usual_filter = 0x33;

// Removes a number that may be negative.
bool take_int(std::string_view* text, int* value) {
    bool negative = text->starts_with('-');
    std::string_view rest = text->substr(negative ? 1 : 0);
    uint64_t number = 0;
    if (!take_number(&rest, &number) || number > INT32_MAX) {
        return false;
    }
    *text = rest;
    *value = negative ? -static_cast<int>(number) : static_cast<int>(number);
    return true;
}

bool parse_after_name(std::string_view rest, process_stat* stat) {
    std::string_view state = take_word(&rest);
    if (state.size() != 1) {
        return false;
    }
    stat->state = state[0];
    if (!take_int(&rest, &stat->parent) || !take_int(&rest, &stat->group) ||
        !take_int(&rest, &stat->session)) {
        return false;
    }
    take_word(&rest);  // the terminal
    take_word(&rest);  // its foreground group
    uint64_t faults[4];
    if (!take_number(&rest, &stat->flags)) {
        return false;
    }
    for (uint64_t& each : faults) {
        if (!take_number(&rest, &each)) {
            return false;
        }
    }
    if (!take_number(&rest, &stat->user) || !take_number(&rest, &stat->system)) {
        return false;
    }
    if (!take_number(&rest, &stat->children_user) || !take_number(&rest, &stat->children_system)) {
        return false;
    }
    take_word(&rest);  // the priority
    return take_int(&rest, &stat->nice) && take_number(&rest, &stat->threads);
}

bool parse_status_line(std::string_view line, process_status* status) {
    uint64_t number = 0;
    if (take_prefix(&line, "Tgid:")) {
        return take_int(&line, &status->process);
    }
    if (take_prefix(&line, "TracerPid:")) {
        return take_int(&line, &status->tracer);
    }
    if (take_prefix(&line, "Uid:") && take_number(&line, &number)) {
        status->uid = static_cast<unsigned>(number);
    } else if (take_prefix(&line, "Gid:") && take_number(&line, &number)) {
        status->gid = static_cast<unsigned>(number);
    }
    return true;
}

bool reads_here(int folder, const char* number, const struct stat& pipe) {
    struct stat link = {}, target = {};
    return fstatat(folder, number, &link, AT_SYMLINK_NOFOLLOW) == 0 && (link.st_mode & S_IRUSR) != 0 &&
           fstatat(folder, number, &target, 0) == 0 && target.st_dev == pipe.st_dev &&
           target.st_ino == pipe.st_ino;
}

// When another thread executes a program, it replaces the first thread, which looks like a zombie for a
// moment.
constexpr char is_zombie[] = "is a zombie";
constexpr char no_process[] = "no such process";
constexpr useconds_t second_try_us = 10'000;

std::string read_once(pid_t pid, process_facts* facts) {
    process_facts found;
    if (!process_parse_stat(proc_text(pid, "stat"), &found.stat) ||
        !process_parse_status(proc_text(pid, "status"), &found.status)) {
        return no_process;
    }
    if (found.status.process != pid) {
        return "is a thread of process " + std::to_string(found.status.process);
    }
    if (pid == getpid()) {
        return "is the dumper itself";
    }
    if (found.stat.flags & kernel_thread_flag) {
        return "is a kernel thread";
    }
    // The first thread may have ended before others.
    if (strchr("ZXx", found.stat.state) && found.stat.threads < 2) {
        return is_zombie;
    }
    *facts = std::move(found);
    return {};
}

}  // namespace

bool process_parse_stat(std::string_view text, process_stat* stat) {
    size_t open = text.find('('), close = text.rfind(") ");
    if (open == text.npos || close == text.npos || close < open) {
        return false;
    }
    process_stat found;
    found.name = text.substr(open + 1, close - open - 1);
    if (!parse_after_name(text.substr(close + 2), &found)) {
        return false;
    }
    *stat = std::move(found);
    return true;
}

bool process_parse_status(std::string_view text, process_status* status) {
    process_status found;
    while (!text.empty()) {
        size_t end = text.find('\n');
        if (!parse_status_line(text.substr(0, end), &found)) {
            return false;
        }
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
    }
    if (found.process == 0) {
        return false;
    }
    *status = found;
    return true;
}

uint64_t process_parse_filter(std::string_view text) {
    uint64_t bits = 0;
    return take_hex(&text, &bits) ? bits : usual_filter;
}

std::string process_read(pid_t pid, process_facts* facts) {
    std::string reason = read_once(pid, facts);
    if (reason == is_zombie) {
        usleep(second_try_us);
        reason = read_once(pid, facts);
    }
    return reason;
}

std::string process_stop_error(int error, pid_t tracer) {
    switch (error) {
        case ESRCH:
            return no_process;
        case EBUSY:
            return "is already traced by process " + std::to_string(tracer);
        case ETIMEDOUT:
            return "is stuck while executing another program";
        case EMEDIUMTYPE:
            return "is a program for another kind of processor";
        default:
            return std::string("cannot be stopped: ") + strerror(error);
    }
}

bool process_reads(pid_t pid, int fd) {
    struct stat ours = {};
    if (fstat(fd, &ours) != 0 || !S_ISFIFO(ours.st_mode)) {
        return false;
    }
    unique_dir folder(opendir(proc_path(pid, "fd").text));
    while (dirent* entry = folder ? readdir(folder.get()) : nullptr) {
        if (entry->d_name[0] != '.' && reads_here(dirfd(folder.get()), entry->d_name, ours)) {
            return true;
        }
    }
    return false;
}
