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

#include <memory>
#include <string>

#include "tests/unit/support/children.h"
#include "tests/unit/support/pipes.h"

namespace {

using fetcher = fetched_frames (*)(frame_batch*, int, int, captured_frame*, int);
constexpr fetcher fetchers[] = {fetch_frames, fetch_frames_singly};

// A socket whose reads behave like a packet socket's: one message each.
struct frame_queue {
    test_socketpair ends{SOCK_DGRAM};
    std::unique_ptr<frame_batch> batch = std::make_unique<frame_batch>();

    frame_queue() {
        memset(batch.get(), 0, sizeof *batch);
        frame_batch_prepare(batch.get());
    }
    void put(const std::string& frame) const {
        EXPECT_EQ(send(ends.a.get(), frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()));
    }
    fetched_frames take(fetcher fetch, int room, int first = 0) {
        return fetch(batch.get(), ends.b.get(), first, frames, room);
    }
    std::string taken(int i) const {
        return {reinterpret_cast<const char*>(frames[i].bytes), frames[i].length};
    }
    captured_frame frames[frame_batch::capacity] = {};
};

// Makes recvmmsg fail as on a kernel that does not have it, for the rest of this process's life.
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

TEST(fetch_frames, empty_queue_is_no_end) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        fetched_frames got = queue.take(fetch, 4);
        EXPECT_EQ(got.count, 0);
        EXPECT_FALSE(got.ended);
    }
}

TEST(fetch_frames, takes_what_is_queued_in_order) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        queue.put("first");
        queue.put("second one");
        fetched_frames got = queue.take(fetch, 4, 7);
        EXPECT_EQ(got.count, 2);
        EXPECT_FALSE(got.ended);
        EXPECT_EQ(queue.taken(0), "first");
        EXPECT_EQ(queue.taken(1), "second one");
    }
}

TEST(fetch_frames, leaves_what_there_is_no_room_for) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        for (const char* frame : {"a", "b", "c"}) {
            queue.put(frame);
        }
        EXPECT_EQ(queue.take(fetch, 2).count, 2);
        EXPECT_EQ(queue.take(fetch, 2).count, 1);
        EXPECT_EQ(queue.taken(0), "c");
    }
}

TEST(fetch_frames, cuts_a_frame_at_1536_bytes) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        std::string frame(4000, 'x');
        queue.put(frame);
        queue.put("next");
        EXPECT_EQ(queue.take(fetch, 4).count, 2);
        EXPECT_EQ(queue.taken(0), frame.substr(0, 1536));
        EXPECT_EQ(queue.taken(1), "next");
    }
}

TEST(fetch_frames, empty_frame_is_the_end) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        queue.put("one");
        queue.put("");
        queue.put("behind");
        fetched_frames got = queue.take(fetch, 4);
        EXPECT_EQ(got.count, 1);
        EXPECT_TRUE(got.ended);
    }
}

TEST(fetch_frames, failed_read_is_the_end) {
    for (fetcher fetch : fetchers) {
        frame_queue queue;
        fetched_frames got = fetch(queue.batch.get(), -1, 0, queue.frames, 4);
        EXPECT_EQ(got.count, 0);
        EXPECT_TRUE(got.ended);
    }
}

TEST(fetch_frames, kernel_without_recvmmsg_is_served_too) {
    int status = run_in_child([] {
        frame_queue queue;
        queue.put("first");
        queue.put("second");
        if (!forget_recvmmsg()) {
            return 77;
        }
        if (recvmmsg(queue.ends.b.get(), queue.batch->messages, 1, MSG_DONTWAIT, nullptr) != -1 ||
            errno != ENOSYS) {
            return 1;
        }
        fetched_frames got = queue.take(fetch_frames, 4);
        return got.count == 2 && !got.ended && queue.taken(1) == "second" ? 0 : 2;
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs seccomp filters";
    }
    EXPECT_TRUE(exited_with(status, 0)) << status;
}
