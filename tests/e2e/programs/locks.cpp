// locks: threads that wait for one another, or for something harmless.
//
// usage: locks KIND [NUMBER]; prints a line once all threads exist, and runs until it is killed.
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

namespace {

pthread_barrier_t all_locked;
std::vector<pthread_mutex_t> locks;

pthread_t start(void* (*run)(void*), size_t number = 0) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, run, reinterpret_cast<void*>(number)) != 0) {
        exit(1);
    }
    return thread;
}

// Each thread locks its own lock, then that of the next one.
void* lock_next(void* number) {
    const auto own = reinterpret_cast<size_t>(number);
    pthread_mutex_lock(&locks[own]);
    pthread_barrier_wait(&all_locked);
    pthread_mutex_lock(&locks[(own + 1) % locks.size()]);
    return nullptr;
}

void cycle(unsigned count) {
    locks.assign(count, pthread_mutex_t(PTHREAD_MUTEX_INITIALIZER));
    pthread_barrier_init(&all_locked, nullptr, count);
    for (size_t i = 0; i < count; i++) {
        start(lock_next, i);
    }
}

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

void* lock_and_end(void*) {
    pthread_mutex_lock(&lock);
    return nullptr;
}
void* only_lock(void*) {
    pthread_mutex_lock(&lock);
    return nullptr;
}

void ended(unsigned) {
    pthread_join(start(lock_and_end), nullptr);
    start(only_lock);
}

pthread_cond_t condition = PTHREAD_COND_INITIALIZER;

void* wait_for_condition(void*) {
    pthread_mutex_lock(&lock);
    for (;;) {
        pthread_cond_wait(&condition, &lock);
    }
}

void conditions(unsigned count) {
    for (unsigned i = 0; i < count; i++) {
        start(wait_for_condition);
    }
}

sem_t semaphore;

void* wait_for_semaphore(void*) {
    sem_wait(&semaphore);
    return nullptr;
}

void semaphores(unsigned count) {
    sem_init(&semaphore, 0, 0);
    for (unsigned i = 0; i < count; i++) {
        start(wait_for_semaphore);
    }
}

// The first thread has the lock, and waits for the end of one that wants it.
void* join_one(void*) {
    pthread_mutex_lock(&lock);
    pthread_join(start(only_lock), nullptr);
    return nullptr;
}

void join(unsigned) {
    start(join_one);
}

constexpr struct {
    const char* name;
    void (*run)(unsigned);
} kinds[] = {
    {"cycle", cycle},           {"ended", ended}, {"conditions", conditions},
    {"semaphores", semaphores}, {"join", join},
};

}  // namespace

int main(int argc, char** argv) {
    for (const auto& kind : kinds) {
        if (argc > 1 && strcmp(argv[1], kind.name) == 0) {
            kind.run(argc > 2 ? static_cast<unsigned>(atoi(argv[2])) : 2);
            puts("ready");
            fflush(stdout);
            for (;;) {
                pause();
            }
        }
    }
    return 2;
}
