// Threads in states that are rare outside tests.
#pragma once

#include <dirent.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>

#include "tests/unit/support/children.h"

// Prevents this process from starting threads with default attributes. For children only. Returns false if
// one can still be started.
inline bool forbid_new_threads() {
    pthread_attr_t attributes;
    pthread_t thread;
    return pthread_attr_init(&attributes) == 0 &&
           pthread_attr_setstacksize(&attributes, SIZE_MAX / 2 & ~static_cast<size_t>(0xffff)) == 0 &&
           pthread_setattr_default_np(&attributes) == 0 &&
           pthread_create(
               &thread, nullptr, [](void* none) { return none; }, nullptr) != 0;
}

// Starts `entry` on a thread that is detached already, so that it fails to detach itself.
inline void start_detached(void* (*entry)(void*), void* argument) {
    pthread_attr_t attributes;
    pthread_t thread;
    EXPECT_EQ(pthread_attr_init(&attributes), 0);
    EXPECT_EQ(pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED), 0);
    EXPECT_EQ(pthread_create(&thread, &attributes, entry, argument), 0);
    EXPECT_EQ(pthread_attr_destroy(&attributes), 0);
}

// Waits until every worker has ended, so that the next test may fork: a worker still runs for a moment after
// it has closed its connection. The thread sanitizer has a thread of its own.
inline void wait_for_workers() {
#ifdef __SANITIZE_THREAD__
    constexpr int usual_threads = 2;
#else
    constexpr int usual_threads = 1;
#endif
    EXPECT_TRUE(eventually([] {
        int threads = 0;
        unique_dir tasks(opendir("/proc/self/task"));
        while (const dirent* task = tasks ? readdir(tasks.get()) : nullptr) {
            threads += task->d_name[0] != '.';
        }
        return threads <= usual_threads;
    })) << "a worker is still running";
}
