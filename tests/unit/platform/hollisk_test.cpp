#include "platform/hollisk.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {

// Makes the first `calls` calls in a new process, with HOLLISK_FAIL_COUNT set to the given text (null:
// unset). Returns a character for each call: '.' success, 'F' failure with a message, '?' anything else.
std::string outcomes(const char* fail_count, int calls) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    fflush(stdout);  // some sanitizers write a child's copy of it at _exit
    pid_t child = fork();
    if (child == 0) {
        unsetenv("HOLLISK_FAIL_COUNT");
        if (fail_count != nullptr) {
            setenv("HOLLISK_FAIL_COUNT", fail_count, 1);
        }
        for (int i = 0; i < calls; i++) {
            hollisk_error* error = nullptr;
            hollisk_set_service_watchdogs(i % 2, &error);
            bool has_message = error != nullptr && error->message != nullptr && strlen(error->message) > 0;
            char letter = error == nullptr ? '.' : has_message ? 'F' : '?';
            (void)!write(ends[1], &letter, 1);
        }
        _exit(0);
    }
    close(ends[1]);
    std::string letters;
    char letter;
    while (read(ends[0], &letter, 1) == 1) {
        letters += letter;
    }
    close(ends[0]);
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    return letters;
}

// Makes 4000 calls in 8 threads at once and returns how many failed.
int failures_of_many_threads() {
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) {
        threads.emplace_back([&failed] {
            for (int call = 0; call < 500; call++) {
                hollisk_error* error = nullptr;
                hollisk_set_service_watchdogs(0, &error);
                failed += error != nullptr;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return failed;
}

// Runs `fact` in a process of its own.
bool holds_in_child(bool (*fact)()) {
    fflush(stdout);  // some sanitizers write a child's copy of it at _exit
    pid_t child = fork();
    if (child == 0) {
        _exit(fact() ? 0 : 1);
    }
    int status = -1;
    return waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

TEST(hollisk, succeeds_without_a_fail_count) {
    EXPECT_EQ(outcomes(nullptr, 3), "...");
}

TEST(hollisk, fail_count_makes_the_first_calls_fail) {
    EXPECT_EQ(outcomes("1", 3), "F..");
    EXPECT_EQ(outcomes("2", 4), "FF..");
    EXPECT_EQ(outcomes("9", 3), "FFF");
}

TEST(hollisk, fail_count_that_is_not_a_positive_number_is_ignored) {
    EXPECT_EQ(outcomes("0", 2), "..");
    EXPECT_EQ(outcomes("-1", 2), "..");
    EXPECT_EQ(outcomes("", 2), "..");
    EXPECT_EQ(outcomes("many", 2), "..");
}

TEST(hollisk, calls_before_the_fail_count_is_set_are_counted) {
    EXPECT_TRUE(holds_in_child([] {
        unsetenv("HOLLISK_FAIL_COUNT");
        hollisk_error* error = nullptr;
        hollisk_set_service_watchdogs(0, &error);
        setenv("HOLLISK_FAIL_COUNT", "2", 1);
        hollisk_error* second = nullptr;
        hollisk_set_service_watchdogs(1, &second);
        hollisk_error* third = nullptr;
        hollisk_set_service_watchdogs(0, &third);
        return error == nullptr && second != nullptr && third == nullptr;
    }));
}

TEST(hollisk, result_is_the_same_for_success_and_failure) {
    EXPECT_TRUE(holds_in_child([] {
        setenv("HOLLISK_FAIL_COUNT", "1", 1);
        hollisk_error* failure = nullptr;
        hollisk_error* success = nullptr;
        int when_failing = hollisk_set_service_watchdogs(0, &failure);
        return when_failing == hollisk_set_service_watchdogs(0, &success) && failure != nullptr &&
               success == nullptr;
    }));
}

TEST(hollisk, missing_error_pointer_is_tolerated) {
    EXPECT_TRUE(holds_in_child([] {
        setenv("HOLLISK_FAIL_COUNT", "1", 1);
        hollisk_set_service_watchdogs(0, nullptr);
        hollisk_error* error = nullptr;
        hollisk_set_service_watchdogs(0, &error);
        return error == nullptr;
    }));
}

TEST(hollisk, threads_share_one_count) {
    EXPECT_TRUE(holds_in_child([] {
        setenv("HOLLISK_FAIL_COUNT", "1234", 1);
        return failures_of_many_threads() == 1234;
    }));
}

TEST(hollisk, message_is_the_third_field_after_two_32_bit_words) {
    EXPECT_EQ(offsetof(hollisk_error, domain), 0u);
    EXPECT_EQ(offsetof(hollisk_error, code), 4u);
    EXPECT_EQ(offsetof(hollisk_error, message), 8u);
}
