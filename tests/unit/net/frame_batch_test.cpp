#include "net/frame_batch.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <algorithm>
#include <memory>
#include <string>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

using fetcher = fetched_frames (*)(frame_batch*, int, int, int);
constexpr fetcher fetchers[] = {frame_batch_fetch, frame_batch_fetch_singly};

// A socket that is read like a packet socket: each read returns one message.
struct frame_queue {
    test_socketpair ends{SOCK_DGRAM};
    std::unique_ptr<frame_batch> batch = std::make_unique<frame_batch>();

    frame_queue() {
        memset(batch.get(), 0, sizeof *batch);
        frame_batch_prepare(batch.get());
    }
    void add(const std::string& bytes) const {
        EXPECT_EQ(send(ends.a.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    }
    fetched_frames take(fetcher fetch, int limit, int first = 0) const {
        return fetch(batch.get(), ends.b.get(), first, limit);
    }
    unsigned wire_length(int i) const { return batch->messages[i].msg_len; }
    std::string frame(int i) const {
        return {reinterpret_cast<const char*>(batch->frames[i]), std::min(wire_length(i), pcap_frame_limit)};
    }
};

// Makes recvmmsg fail with ENOSYS, for the rest of this process's life.
bool forget_recvmmsg() {
    constexpr uint32_t missing = SECCOMP_RET_ERRNO | ENOSYS;
    sock_filter lines[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
#ifdef SYS_recvmmsg_time64
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_recvmmsg_time64, 1, 0),
#else
        BPF_STMT(BPF_MISC | BPF_TAX, 0),
#endif
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_recvmmsg, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, missing),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog program = {std::size(lines), lines};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

}  // namespace

TEST(frame_batch_fetch, empty_queue_is_not_an_end) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        fetched_frames got = queue.take(fetch, 4);
        EXPECT_EQ(got.count, 0);
        EXPECT_FALSE(got.has_ended);
    }
}

TEST(frame_batch_fetch, returns_queued_frames_in_order) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        queue.add("first");
        queue.add("second one");
        fetched_frames got = queue.take(fetch, 4, 7);
        EXPECT_EQ(got.count, 2);
        EXPECT_FALSE(got.has_ended);
        EXPECT_FALSE(got.is_full);
        EXPECT_EQ(queue.frame(7), "first");
        EXPECT_EQ(queue.frame(8), "second one");
    }
}

TEST(frame_batch_fetch, leaves_frames_beyond_the_limit_queued) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        for (const char* frame : {"a", "b", "c"}) {
            queue.add(frame);
        }
        fetched_frames got = queue.take(fetch, 2);
        EXPECT_EQ(got.count, 2);
        EXPECT_TRUE(got.is_full);
        got = queue.take(fetch, 2);
        EXPECT_EQ(got.count, 1);
        EXPECT_FALSE(got.is_full);
        EXPECT_EQ(queue.frame(0), "c");
    }
}

TEST(frame_batch_fetch, cuts_a_frame_at_1536_bytes_and_keeps_its_length) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        std::string sent(4000, 'x');
        queue.add(sent);
        queue.add("next");
        EXPECT_EQ(queue.take(fetch, 4).count, 2);
        EXPECT_EQ(queue.frame(0), sent.substr(0, 1536));
        EXPECT_EQ(queue.wire_length(0), 4000u);
        EXPECT_EQ(queue.frame(1), "next");
    }
}

TEST(frame_batch_fetch, empty_frame_is_the_end) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        queue.add("one");
        queue.add("");
        queue.add("after");
        fetched_frames got = queue.take(fetch, 4);
        EXPECT_EQ(got.count, 1);
        EXPECT_TRUE(got.has_ended);
    }
}

TEST(frame_batch_fetch, failed_read_is_the_end) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        fetched_frames got = fetch(queue.batch.get(), -1, 0, 4);
        EXPECT_EQ(got.count, 0);
        EXPECT_TRUE(got.has_ended);
    }
}

TEST(frame_batch_fetch, works_without_recvmmsg) {
    int status = run_in_child([] {
        frame_queue queue;
        queue.add("first");
        queue.add("second");
        if (!forget_recvmmsg()) {
            return 77;
        }
        if (recvmmsg(queue.ends.b.get(), queue.batch->messages, 1, MSG_DONTWAIT, nullptr) != -1 ||
            errno != ENOSYS) {
            return 1;
        }
        fetched_frames got = queue.take(frame_batch_fetch, 4);
        return got.count == 2 && !got.has_ended && queue.frame(1) == "second" ? 0 : 2;
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs seccomp filters";
    }
    EXPECT_TRUE(exited_with(status, 0)) << status;
}
