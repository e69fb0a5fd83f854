// faulty_threads FAULT: prints "ready PID" when its threads are in the state that FAULT names, and stays in
// it.
//   deadlock2, deadlock3  so many threads wait for locks of one another
//   orphan                a thread waits for a lock whose owner has ended
//   spin, spin-thread     the first thread, or another one, computes without end
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

namespace {

constexpr int most = 3;
constexpr unsigned look_us = 1000;
pthread_mutex_t locks[most] = {PTHREAD_MUTEX_INITIALIZER, PTHREAD_MUTEX_INITIALIZER,
                               PTHREAD_MUTEX_INITIALIZER};
pthread_barrier_t all_have_one;
int ring;  // how many threads there are

void say_ready() {
    printf("ready %d\n", static_cast<int>(getpid()));
    fflush(stdout);
}

void* take_two(void* own) {
    const long first = reinterpret_cast<long>(own);
    pthread_mutex_lock(&locks[first]);
    pthread_barrier_wait(&all_have_one);
    pthread_mutex_lock(&locks[(first + 1) % ring]);
    return nullptr;
}

void deadlock(int threads) {
    ring = threads;
    pthread_barrier_init(&all_have_one, nullptr, static_cast<unsigned>(threads) + 1);
    for (long i = 0; i < threads; i++) {
        pthread_t thread;
        pthread_create(&thread, nullptr, take_two, reinterpret_cast<void*>(i));
    }
    pthread_barrier_wait(&all_have_one);
}

void* take_one(void*) {
    pthread_mutex_lock(&locks[0]);
    return nullptr;
}

void orphan() {
    pthread_t owner;
    pthread_create(&owner, nullptr, take_one, nullptr);
    pthread_join(owner, nullptr);
    pthread_t waiter;
    pthread_create(&waiter, nullptr, take_one, nullptr);
}

void* compute(void*) {
    volatile bool goes_on = true;
    while (goes_on) {
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    const char* fault = argc > 1 ? argv[1] : "";
    if (strncmp(fault, "deadlock", strlen("deadlock")) == 0) {
        deadlock(fault[strlen("deadlock")] - '0');
    } else if (strcmp(fault, "orphan") == 0) {
        orphan();
    } else if (strcmp(fault, "spin") == 0) {
        say_ready();
        compute(nullptr);
    } else if (strcmp(fault, "spin-thread") == 0) {
        pthread_t thread;
        pthread_create(&thread, nullptr, compute, nullptr);
    } else {
        return 2;
    }
    usleep(look_us);
    say_ready();
    for (;;) {
        pause();
    }
}
