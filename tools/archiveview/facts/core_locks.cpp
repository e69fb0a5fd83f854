#include "tools/archiveview/facts/core_locks.h"

#include <elf.h>
#include <linux/futex.h>

#include <set>

#include "tools/archiveview/facts/core_bytes.h"

namespace archiveview {
namespace {

// The C library's mutex: the word that waits are for, a count, the owner's tid; then the number of users and
// the kind, in an order that depends on the machine.
constexpr size_t mutex_count = 4, mutex_owner = 8;
constexpr uint32_t locked_with_waiters = 2;
constexpr int32_t kind_type = 3, kind_recursive = 1, kind_known = 0x3ff;
constexpr int32_t tid_limit = 1 << 22;  // the kernel's

constexpr size_t fs_base = 21;  // index of an x86-64 register: where the thread's own data begin
constexpr uint64_t thread_data_bytes = 0x1000;  // enough for the field that a join waits for

struct lock_reader {
    const core_notes& notes;
    const core_machine& machine;
    std::set<int> tids;

    bool is_thread(int tid) const { return tids.contains(tid); }
    int mutex_holder(std::string_view bytes) const;
    bool is_surely_mutex(std::string_view bytes) const;
    int stream_holder(std::string_view bytes) const;
    int joined(const futex_wait& wait, std::string_view bytes) const;
    void read(const futex_wait& wait, std::string_view bytes, core_thread* thread) const;
    void set_owner(int owner, bool can_be_elsewhere, core_thread* thread) const;
};

// The owner in a mutex, or 0 if it is none.
int lock_reader::mutex_holder(std::string_view bytes) const {
    const auto owner = value_at<int32_t>(bytes, mutex_owner);
    const auto kind = value_at<int32_t>(bytes, machine.mutex_kind);
    const bool is_sane =
        bytes.size() == mutex_bytes && owner > 0 && owner <= tid_limit && (kind & ~kind_known) == 0;
    return is_sane && (is_thread(owner) || is_surely_mutex(bytes)) ? owner : 0;
}

// An owner that is no thread may also mean that this is something else, so all must fit.
bool lock_reader::is_surely_mutex(std::string_view bytes) const {
    const auto count = value_at<uint32_t>(bytes, mutex_count);
    const auto users = value_at<uint32_t>(bytes, machine.mutex_users);
    const bool is_recursive = (value_at<int32_t>(bytes, machine.mutex_kind) & kind_type) == kind_recursive;
    return is_recursive == (count > 0) && users == 1;
}

// The lock of a stdio stream has a pointer to its owner's own data; only x86-64 cores tell where these are.
int lock_reader::stream_holder(std::string_view bytes) const {
    const auto data = value_at<uint64_t>(bytes, mutex_owner);
    if (machine.number == EM_X86_64 && data != 0) {
        for (const noted_thread& thread : notes.threads) {
            if (thread.registers[fs_base] == data) {
                return thread.tid;
            }
        }
    }
    return 0;
}

// The thread whose end this one waits for: the kernel clears the word that has its tid.
int lock_reader::joined(const futex_wait& wait, std::string_view bytes) const {
    const auto tid = value_at<int32_t>(bytes, 0);
    if (!is_thread(tid) || static_cast<uint32_t>(tid) != wait.value) {
        return 0;
    }
    if (machine.number != EM_X86_64) {
        return tid;
    }
    for (const noted_thread& thread : notes.threads) {
        if (thread.tid == tid) {
            const uint64_t data = thread.registers[fs_base];
            return wait.address >= data && wait.address - data < thread_data_bytes ? tid : 0;
        }
    }
    return 0;
}

void lock_reader::set_owner(int owner, bool can_be_elsewhere, core_thread* thread) const {
    thread->owner = owner;
    thread->owner_ended = owner != 0 && !can_be_elsewhere && !is_thread(owner);
}

void lock_reader::read(const futex_wait& wait, std::string_view bytes, core_thread* thread) const {
    if (bytes.size() < sizeof(uint32_t)) {
        return;
    }
    const auto word = value_at<uint32_t>(bytes, 0);
    const uint32_t command = wait.operation & FUTEX_CMD_MASK;
    const bool is_shared = (wait.operation & FUTEX_PRIVATE_FLAG) == 0;
    const auto named = static_cast<int>(word & FUTEX_TID_MASK);
    if (command == FUTEX_LOCK_PI || command == FUTEX_LOCK_PI2) {
        return set_owner(named, is_shared, thread);
    }
    if ((command != FUTEX_WAIT && command != FUTEX_WAIT_BITSET) || word != wait.value) {
        return;
    }
    if ((word & FUTEX_WAITERS) != 0) {
        // A robust mutex, whose word has its owner. Something else may have this bit as well.
        return set_owner(is_thread(named) || mutex_holder(bytes) == named ? named : 0, is_shared, thread);
    }
    if (word == locked_with_waiters) {
        const int holder = stream_holder(bytes);
        return set_owner(holder != 0 ? holder : mutex_holder(bytes), is_shared, thread);
    }
    if (is_shared) {
        thread->joins = joined(wait, bytes);
    }
}

}  // namespace

void core_locks_read(const core_notes& notes, const core_machine& machine, const core_memory& memory,
                     const std::vector<futex_wait>& waits, core_facts* facts) {
    lock_reader reader = {.notes = notes, .machine = machine, .tids = {}};
    for (const noted_thread& thread : notes.threads) {
        reader.tids.insert(thread.tid);
    }
    for (const futex_wait& wait : waits) {
        reader.read(wait, memory.at(wait.address), &facts->threads[wait.thread]);
    }
}

}  // namespace archiveview
