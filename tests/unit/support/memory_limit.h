// Makes memory run out.
#pragma once

#include <gtest/gtest.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <new>

// Lets the address space of this process grow by no more than `spare` bytes for the length of a block.
class scoped_memory_limit {
public:
    explicit scoped_memory_limit(size_t spare) {
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        EXPECT_GT(pages, 0u);
        EXPECT_EQ(getrlimit(RLIMIT_AS, &old_), 0);
        rlimit now = {pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + spare, old_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_AS, &now), 0);
    }
    scoped_memory_limit(const scoped_memory_limit&) = delete;
    scoped_memory_limit& operator=(const scoped_memory_limit&) = delete;
    ~scoped_memory_limit() { EXPECT_EQ(setrlimit(RLIMIT_AS, &old_), 0); }

private:
    rlimit old_ = {};
};

// Allocates all memory that this process can get, down to pieces of `smallest` bytes, for the length of a
// block.
class scoped_memory_shortage {
public:
    explicit scoped_memory_shortage(size_t smallest = sizeof(void*)) {
        for (size_t size = 1 << 20; size >= std::max(smallest, sizeof(piece)); size /= 2) {
            while (void* memory = malloc(size)) {
                taken_ = new (memory) piece{taken_};
            }
        }
    }
    scoped_memory_shortage(const scoped_memory_shortage&) = delete;
    scoped_memory_shortage& operator=(const scoped_memory_shortage&) = delete;
    ~scoped_memory_shortage() {
        while (piece* last = taken_) {
            taken_ = last->before;
            free(last);
        }
    }

private:
    struct piece {
        piece* before;
    };

    scoped_memory_limit limit_{0};
    piece* taken_ = nullptr;
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define SKIP_WITHOUT_MEMORY_LIMIT() \
    GTEST_SKIP() << "a sanitizer's allocator does not work with a memory limit"
#else
#define SKIP_WITHOUT_MEMORY_LIMIT() \
    do {                            \
    } while (false)
#endif
