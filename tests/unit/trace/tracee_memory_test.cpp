#include "trace/tracee_memory.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <unistd.h>

#include <vector>

#include "tests/unit/support/children.h"
#include "tests/unit/trace/fake_memory.h"

namespace {

constexpr size_t word = sizeof(long);
constexpr uint64_t base = 0x10000;

std::string text_of(const tracee_memory& memory, uint64_t address, size_t count) {
    unsigned char bytes[tracee_text_limit];
    size_t got = tracee_text(memory, address, bytes, count);
    EXPECT_LE(got, count);
    return std::string(reinterpret_cast<char*>(bytes), got);
}

// The text that one PTRACE_PEEKDATA for each byte gives.
std::string peeked(pid_t pid, uint64_t address, size_t count) {
    std::string text;
    while (text.size() < count) {
        errno = 0;
        long value = ptrace(PTRACE_PEEKDATA, pid, reinterpret_cast<void*>(address + text.size()), nullptr);
        if (value == -1 && errno != 0) {
            break;
        }
        text += static_cast<char>(value);
    }
    return text;
}

// A stopped child of the test with a copy of its memory.
class stopped_child {
public:
    stopped_child() {
        pid_ = fork_child([] {
            ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
            raise(SIGSTOP);
            return 0;
        });
        EXPECT_TRUE(WIFSTOPPED(wait_status(pid_)));
    }
    stopped_child(const stopped_child&) = delete;
    stopped_child& operator=(const stopped_child&) = delete;
    ~stopped_child() {
        EXPECT_EQ(ptrace(PTRACE_DETACH, pid_, nullptr, nullptr), 0);
        EXPECT_TRUE(exited_with(wait_status(pid_), 0));
    }
    pid_t pid() const { return pid_; }

private:
    pid_t pid_;
};

// A readable page followed by an unmapped one.
class page_before_a_hole {
public:
    page_before_a_hole() {
        size_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        void* at = mmap(nullptr, 2 * size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(at, MAP_FAILED);
        start_ = static_cast<char*>(at);
        for (size_t i = 0; i < size_; i++) {
            start_[i] = static_cast<char>('a' + i % 26);
        }
        EXPECT_EQ(munmap(end(), size_), 0);
    }
    page_before_a_hole(const page_before_a_hole&) = delete;
    page_before_a_hole& operator=(const page_before_a_hole&) = delete;
    ~page_before_a_hole() { munmap(start_, size_); }
    char* start() const { return start_; }
    char* end() const { return start_ + size_; }
    size_t size() const { return size_; }

private:
    char* start_;
    size_t size_;
};

uint64_t address_of(const void* at) {
    return reinterpret_cast<uint64_t>(at);
}

}  // namespace

TEST(tracee_text, reads_the_requested_bytes) {
    fake_memory fake{{{base, "hello, world, and more"}}};
    EXPECT_EQ(text_of(fake.view(), base, 5), "hello");
    EXPECT_EQ(text_of(fake.view(), base + 7, 5), "world");
    EXPECT_EQ(text_of(fake.view(), base, 0), "");
}

TEST(tracee_text, ends_at_a_byte_without_a_whole_word) {
    fake_memory fake{{{base, "0123456789abcdef"}}};
    EXPECT_EQ(text_of(fake.view(), base, 64), std::string("0123456789abcdef").substr(0, 16 - word + 1));
    EXPECT_EQ(text_of(fake.view(), base + 16 - word, 64).size(), 1u);
    EXPECT_EQ(text_of(fake.view(), base + 16 - word + 1, 64), "");
    EXPECT_EQ(text_of(fake.view(), base + 16, 64), "");
    EXPECT_EQ(text_of(fake.view(), 0, 64), "");
}

TEST(tracee_text, gives_the_same_if_only_words_can_be_read) {
    fake_memory fake{{{base, "0123456789abcdefghijklmnopqrstuvwxyz"}}};
    for (uint64_t address = base - 2; address < base + 40; address++) {
        for (size_t count : {0, 1, 7, 8, 9, 31, 32, 64}) {
            fake.blocks = true;
            std::string at_once = text_of(fake.view(), address, count);
            fake.blocks = false;
            EXPECT_EQ(at_once, text_of(fake.view(), address, count)) << address << " " << count;
        }
    }
}

TEST(tracee_text, reads_no_more_than_its_limit) {
    fake_memory fake{{{base, std::string(1000, 'x')}}};
    EXPECT_EQ(text_of(fake.view(), base, 500).size(), tracee_text_limit);
}

TEST(tracee_text, word_of_minus_one_is_no_error) {
    fake_memory fake{{{base, std::string(32, '\xff')}}};
    fake.blocks = false;
    EXPECT_EQ(text_of(fake.view(), base, 5), std::string(5, '\xff'));
}

TEST(tracee_word_pair, reads_two_words_of_the_processor) {
    long words[] = {12345, -2};
    fake_memory fake{{{base, std::string(reinterpret_cast<char*>(words), sizeof words)}}};
    for (bool blocks : {true, false}) {
        fake.blocks = blocks;
        tracee_words pair = tracee_word_pair(fake.view(), base);
        EXPECT_EQ(pair.first, 12345);
        EXPECT_EQ(pair.second, -2);
    }
}

TEST(tracee_word_pair, unreadable_word_is_minus_one) {
    long only = 77;
    fake_memory fake{{{base, std::string(reinterpret_cast<char*>(&only), sizeof only)}}};
    tracee_words pair = tracee_word_pair(fake.view(), base);
    EXPECT_EQ(pair.first, 77);
    EXPECT_EQ(pair.second, -1);
    pair = tracee_word_pair(fake.view(), 8);
    EXPECT_EQ(pair.first, -1);
    EXPECT_EQ(pair.second, -1);
}

TEST(tracee_memory_of, matches_peekdata_up_to_an_unmapped_page) {
    page_before_a_hole page;
    stopped_child child;
    tracee_memory memory = tracee_memory_of(child.pid());
    for (size_t before_end : {100, 64, 40, 32, 31, 9, 8, 7, 4, 3, 1, 0}) {
        uint64_t address = address_of(page.end() - before_end);
        for (size_t count : {1, 32, 64}) {
            EXPECT_EQ(text_of(memory, address, count), peeked(child.pid(), address, count)) << before_end;
        }
    }
    EXPECT_EQ(text_of(memory, address_of(page.start()), 3), "abc");
}

TEST(tracee_memory_of, reads_memory_that_only_a_debugger_may_read) {
    page_before_a_hole page;
    ASSERT_EQ(mprotect(page.start(), page.size(), PROT_NONE), 0);
    stopped_child child;
    tracee_memory memory = tracee_memory_of(child.pid());
    uint64_t address = address_of(page.start());
    EXPECT_EQ(text_of(memory, address, 32), "abcdefghijklmnopqrstuvwxyzabcdef");
    EXPECT_EQ(text_of(memory, address, 32), peeked(child.pid(), address, 32));
}

TEST(tracee_memory_of, reads_nothing_at_wild_addresses) {
    stopped_child child;
    tracee_memory memory = tracee_memory_of(child.pid());
    for (uint64_t address : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}, ~uint64_t{0} - 40, uint64_t{1} << 63}) {
        EXPECT_EQ(text_of(memory, address, 32), "") << address;
    }
}

TEST(tracee_memory_of, reads_nothing_of_a_process_that_has_ended) {
    pid_t gone = fork_child([] { return 0; });
    wait_status(gone);
    EXPECT_EQ(text_of(tracee_memory_of(gone), address_of(&gone), 8), "");
}

TEST(tracee_memory_of, reads_the_memory_file) {
    static const char secret[] = "read me";
    stopped_child child;
    tracee_memory memory = tracee_memory_of(child.pid());
    char got[8] = "";
    EXPECT_EQ(memory.read_file(memory, got, sizeof got, static_cast<int64_t>(address_of(secret))), 8);
    EXPECT_STREQ(got, "read me");
    EXPECT_EQ(memory.read_file(memory, got, sizeof got, 0), -1);
}
