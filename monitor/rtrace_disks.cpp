#include "monitor/rtrace_disks.h"

#include <limits.h>
#include <mntent.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <string_view>
#include <utility>

#include "common/safe_io.h"
#include "common/unique_fd.h"
#include "monitor/rtrace_wait.h"

// One statfs under way. The trace and the thread that asks hold it; the last one to let go frees it.
struct rtrace_question {
    std::atomic<int> holders;
    std::atomic<bool> answered;
    int done_fd;  // readable when answered
    int (*statfs_call)(const char*, struct statfs*);
    int result;
    struct statfs usage;
    char path[];
};

namespace {

constexpr size_t mount_line_room = 4096;
constexpr size_t question_stack = size_t{256} * 1024;

std::atomic<int> questions_open{0};

enum class verdict { listed, left_out, client_gone };

void let_go(rtrace_question* question) {
    if (question->holders.fetch_sub(1) == 1) {
        close(question->done_fd);
        free(question);
        questions_open.fetch_sub(1);
    }
}

struct question_releaser {
    void operator()(rtrace_question* question) const { let_go(question); }
};
using held_question = std::unique_ptr<rtrace_question, question_releaser>;

void* answer_question(void* argument) {
    held_question question(static_cast<rtrace_question*>(argument));
    question->result = question->statfs_call(question->path, &question->usage);
    question->answered = true;
    const uint64_t one = 1;
    (void)safe_write(question->done_fd, &one, sizeof one);
    return nullptr;
}

bool start_thread(rtrace_question* question) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    // A machine that wants more keeps its default.
    (void)pthread_attr_setstacksize(&attributes, question_stack);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    bool started = pthread_create(&thread, &attributes, answer_question, question) == 0;
    pthread_attr_destroy(&attributes);
    return started;
}

int call_statfs(const char* path, struct statfs* result) {
    return statfs(path, result);
}

// A question that is being asked, held by the caller and the thread; empty when that can't be.
held_question ask(const rtrace_mounts& mounts, const char* path) {
    unique_fd done(eventfd(0, EFD_CLOEXEC));
    size_t path_size = strlen(path) + 1;
    unique_malloc<rtrace_question> memory(
        static_cast<rtrace_question*>(calloc(1, sizeof(rtrace_question) + path_size)));
    if (!done || !memory || questions_open.fetch_add(1) >= rtrace_questions_limit) {
        if (done && memory) {
            questions_open.fetch_sub(1);
        }
        return nullptr;
    }
    rtrace_question* question = memory.release();
    question->holders = 2;
    question->done_fd = done.release();
    question->statfs_call = mounts.statfs_call ? mounts.statfs_call : call_statfs;
    memcpy(question->path, path, path_size);
    held_question held(question);
    if (!start_thread(question)) {
        question->holders = 1;  // there is no thread that would hold it
        return nullptr;
    }
    return held;
}

// Lets go of questions that have been answered meanwhile. Returns where another may be kept, or null when
// `path` is among those that hang or there is no place left.
rtrace_question** place_for(rtrace_mounts& mounts, const char* path) {
    rtrace_question** place = nullptr;
    for (rtrace_question*& kept : mounts.unanswered) {
        if (kept && kept->answered) {
            let_go(std::exchange(kept, nullptr));
        }
        if (!kept) {
            place = &kept;
        } else if (strcmp(kept->path, path) == 0) {
            return nullptr;
        }
    }
    return place;
}

verdict usage_of(rtrace_mounts& mounts, const char* path, int client_fd, struct statfs* usage) {
    rtrace_question** place = place_for(mounts, path);
    held_question question = place ? ask(mounts, path) : nullptr;
    if (!question) {
        return verdict::left_out;
    }
    pollfd waiting[] = {rtrace_client(client_fd), {question->done_fd, POLLIN, 0}};
    int ready = rtrace_poll(waiting, 2, rtrace_now_us() + rtrace_mount_patience_ms * 1000LL);
    if (ready < 0) {
        return verdict::client_gone;
    }
    // The descriptor wakes; what the thread wrote is to be seen through the flag.
    if (ready == 0 || !question->answered) {
        *place = question.release();
        return verdict::left_out;
    }
    *usage = question->usage;
    return question->result == 0 ? verdict::listed : verdict::left_out;
}

bool is_remote(const mntent& entry) {
    std::string_view source = entry.mnt_fsname;
    std::string_view kind = entry.mnt_type;
    return source.find(':') != std::string_view::npos ||
           (source.starts_with("//") && (kind == "smbfs" || kind == "cifs"));
}

long kib_of(uint64_t blocks, uint64_t block_size) {
    return static_cast<long>(static_cast<uint32_t>(blocks) * static_cast<uint32_t>(block_size) / 1024);
}

// The text of the table, which grows in the room of a record.
struct table {
    char* text;
    size_t size = 0;

    bool is_full() const { return size == rtrace_data_capacity; }

    // As printf; what does not fit is cut off.
    [[gnu::format(printf, 2, 3)]] void append(const char* format, ...) {
        size_t left = rtrace_data_capacity - size;
        va_list values;
        va_start(values, format);
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the line before makes it
        int length = vsnprintf(text + size, left + 1, format, values);
        va_end(values);
        if (length > 0) {
            size += std::min(left, static_cast<size_t>(length));
        }
    }
};

struct mounts_closer {
    void operator()(FILE* file) const { endmntent(file); }
};
using unique_mounts_file = std::unique_ptr<FILE, mounts_closer>;

unique_mounts_file open_mounts(const char* root) {
    char path[PATH_MAX];
    int length = snprintf(path, sizeof path, "%s/proc/mounts", root);
    bool fits = length > 0 && static_cast<size_t>(length) < sizeof path;
    return unique_mounts_file(fits ? setmntent(path, "r") : nullptr);
}

// False when the client went.
bool append_mounts(table& table, rtrace_mounts& mounts, FILE* file, int client_fd) {
    mntent entry;
    char strings[mount_line_room];
    while (!table.is_full() && getmntent_r(file, &entry, strings, sizeof strings)) {
        struct statfs usage;
        verdict found =
            is_remote(entry) ? verdict::left_out : usage_of(mounts, entry.mnt_dir, client_fd, &usage);
        if (found == verdict::client_gone) {
            return false;
        }
        if (found == verdict::listed) {
            uint64_t block_size = static_cast<uint64_t>(usage.f_bsize);
            table.append("%-20s\t%ld\t%ld\t%s\n", entry.mnt_fsname,
                         kib_of(usage.f_blocks - usage.f_bfree, block_size),
                         kib_of(usage.f_bavail, block_size), entry.mnt_dir);
        }
    }
    return true;
}

}  // namespace

bool rtrace_sample_disks(const rtrace_sink& sink, rtrace_mounts& mounts, const char* root) {
    table table{rtrace_data(sink)};
    table.append("%-20s\tUsed\tAvail\tMounted on\n", "Filesystem");
    unique_mounts_file file = open_mounts(root);
    return (!file || append_mounts(table, mounts, file.get(), sink.fd)) &&
           rtrace_write_data(sink, rtrace_type_diskinfo, rtrace_no_pid, static_cast<unsigned>(table.size), 0);
}

void rtrace_forget_mounts(rtrace_mounts& mounts) {
    for (rtrace_question*& kept : mounts.unanswered) {
        if (kept) {
            let_go(std::exchange(kept, nullptr));
        }
    }
}
