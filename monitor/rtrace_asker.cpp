#include "monitor/rtrace_asker.h"

#include <limits.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

#include "common/unique_fd.h"
#include "monitor/rtrace_wait.h"

// A thread that calls statfs. It belongs to one trace. When its file system hangs, the trace abandons it: it
// goes onto a list and frees itself when the answer comes.
struct rtrace_asker {
    sem_t next_question;
    bool ends;  // the next question tells the thread to end
    int (*statfs_call)(const char*, struct statfs*);
    char source[PATH_MAX];
    char folder[PATH_MAX];

    // Shared with the thread; protected by askers_lock.
    rtrace_asker* next_abandoned;
    bool is_abandoned;
    bool has_answered;
    int done_fd;  // eventfd; readable after an answer
    int result;
    struct statfs usage;
};

namespace {

constexpr size_t asker_stack = size_t{256} * 1024;

pthread_mutex_t askers_lock = PTHREAD_MUTEX_INITIALIZER;
rtrace_asker* abandoned = nullptr;
int abandoned_count = 0;

struct lock_held {
    lock_held() { pthread_mutex_lock(&askers_lock); }
    lock_held(const lock_held&) = delete;
    lock_held& operator=(const lock_held&) = delete;
    ~lock_held() { pthread_mutex_unlock(&askers_lock); }
};

void free_asker(rtrace_asker* asker) {
    close(asker->done_fd);
    sem_destroy(&asker->next_question);
    free(asker);
}

void abandon(rtrace_asker* asker) {
    asker->is_abandoned = true;
    asker->next_abandoned = std::exchange(abandoned, asker);
    abandoned_count++;
}

void unlist(rtrace_asker* asker) {
    rtrace_asker** link = &abandoned;
    while (*link != asker) {
        link = &(*link)->next_abandoned;
    }
    *link = asker->next_abandoned;
    abandoned_count--;
}

// Whether this mount may not be asked now.
bool is_hanging(const char* source, const char* folder) {
    const lock_held held;
    bool found = abandoned_count >= rtrace_hanging_limit;
    for (const rtrace_asker* each = abandoned; each && !found; each = each->next_abandoned) {
        found = strcmp(each->folder, folder) == 0 && strcmp(each->source, source) == 0;
    }
    return found;
}

// Stores the answer for the trace. False if the trace has abandoned the thread.
bool give_answer(rtrace_asker* asker, int result, const struct statfs& usage) {
    const lock_held held;
    if (asker->is_abandoned) {
        unlist(asker);
        return false;
    }
    asker->result = result;
    asker->usage = usage;
    asker->has_answered = true;
    const uint64_t one = 1;
    (void)!write(asker->done_fd, &one, sizeof one);  // cannot fail: the counter is far from its limit
    return true;
}

void* answer_questions(void* argument) {
    auto* asker = static_cast<rtrace_asker*>(argument);
    // Signals to the process go to other threads, which do not hang.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    for (;;) {
        while (sem_wait(&asker->next_question) != 0) {
        }
        struct statfs usage = {};
        if (asker->ends || !give_answer(asker, asker->statfs_call(asker->folder, &usage), usage)) {
            free_asker(asker);
            return nullptr;
        }
    }
}

bool start_thread(rtrace_asker* asker) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    // On failure (the machine needs a larger stack) the default applies.
    (void)pthread_attr_setstacksize(&attributes, asker_stack);
    pthread_t thread;
    bool started = pthread_create(&thread, &attributes, answer_questions, asker) == 0;
    pthread_attr_destroy(&attributes);
    if (started) {
        pthread_detach(thread);
    }
    return started;
}

rtrace_asker* start_asker() {
    unique_fd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    unique_malloc<rtrace_asker> memory = calloc_one<rtrace_asker>();
    if (!done || !memory) {
        return nullptr;
    }
    rtrace_asker* asker = memory.release();
    asker->done_fd = done.release();
    sem_init(&asker->next_question, 0, 0);
    if (!start_thread(asker)) {
        free_asker(asker);
        return nullptr;
    }
    return asker;
}

int call_statfs(const char* path, struct statfs* result) {
    return statfs(path, result);
}

bool copy_name(char (&to)[PATH_MAX], const char* name) {
    size_t size = strlen(name) + 1;
    if (size > sizeof to) {
        return false;
    }
    memcpy(to, name, size);
    return true;
}

// Sends a question to the thread. False if a name is too long.
bool send_question(rtrace_asker* asker, const rtrace_mounts& mounts, const char* source, const char* folder) {
    if (!copy_name(asker->source, source) || !copy_name(asker->folder, folder)) {
        return false;
    }
    asker->statfs_call = mounts.statfs_call ? mounts.statfs_call : call_statfs;
    asker->has_answered = false;
    sem_post(&asker->next_question);
    return true;
}

}  // namespace

rtrace_answer rtrace_ask_mount(rtrace_mounts& mounts, const char* source, const char* folder, int client_fd,
                               struct statfs* usage) {
    if (is_hanging(source, folder)) {
        return rtrace_answer::none;
    }
    mounts.asker = mounts.asker ? mounts.asker : start_asker();
    rtrace_asker* asker = mounts.asker;
    if (!asker || !send_question(asker, mounts, source, folder)) {
        return rtrace_answer::none;
    }
    pollfd waiting[] = {rtrace_client(client_fd), {asker->done_fd, POLLIN, 0}};
    int ready = rtrace_poll(waiting, 2, deadline(rtrace_mount_patience_ms));
    const lock_held held;
    if (!asker->has_answered) {
        abandon(std::exchange(mounts.asker, nullptr));
        return ready < 0 ? rtrace_answer::client_gone : rtrace_answer::none;
    }
    uint64_t count;
    (void)!read(asker->done_fd, &count, sizeof count);  // resets the event
    if (ready < 0) {
        return rtrace_answer::client_gone;
    }
    if (asker->result != 0) {
        return rtrace_answer::none;
    }
    *usage = asker->usage;
    return rtrace_answer::usage;
}

void rtrace_forget_mounts(rtrace_mounts& mounts) {
    if (rtrace_asker* asker = std::exchange(mounts.asker, nullptr)) {
        asker->ends = true;
        sem_post(&asker->next_question);
    }
}
