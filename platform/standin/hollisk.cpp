// Stand-in for the switch of the service watchdogs. There are no watchdogs, so it succeeds unless the
// environment asks for failures.
#include <stdlib.h>

#include <atomic>

#pragma GCC visibility push(default)
#include "platform/hollisk.h"
#pragma GCC visibility pop

namespace {

// Describes every failure. It is never changed, so threads may share it.
hollisk_error refusal = {1, 1, "failure requested by HOLLISK_FAIL_COUNT"};

std::atomic<uint32_t> calls_so_far{0};

bool fails_on_request(uint32_t calls_before) {
    const char* text = getenv("HOLLISK_FAIL_COUNT");
    if (text == nullptr) {
        return false;
    }
    long long wanted = strtoll(text, nullptr, 10);
    return wanted > 0 && calls_before < static_cast<unsigned long long>(wanted);
}

}  // namespace

int hollisk_set_service_watchdogs(int /*state*/, hollisk_error** error) {
    uint32_t calls_before = calls_so_far.fetch_add(1, std::memory_order_relaxed);
    if (fails_on_request(calls_before) && error != nullptr) {
        *error = &refusal;
    }
    // Deliberately the same for success and failure, so that tests catch a caller that relies on it.
    return 0;
}
