#include "dump/dumper.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include "common/safe_io.h"
#include "tests/unit/dump/dumper_fixture.h"
#include "tests/unit/support/capture.h"
#include "tests/unit/support/children.h"
#include "tests/unit/support/fake_dumper.h"

namespace {

// Collects a core.
struct test_sink {
    unique_fd file = memory_file();
    int blocks = 0;

    core_sink up_to(int64_t limit) { return {write, this, limit}; }
    core_sink all() { return {write, this}; }

private:
    static bool write(void* cookie, const void* data, size_t length) {
        test_sink* sink = static_cast<test_sink*>(cookie);
        sink->blocks++;
        return safe_write(sink->file.get(), data, static_cast<unsigned>(length)) >= 0;
    }
};

}  // namespace

using dump_run_test = dumper_fixture;

TEST_F(dump_run_test, core_is_written_in_blocks) {
    fake_dumper dumper("head -c 100000 /dev/zero");
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    EXPECT_EQ(dump_copy_core(&run, sink.all()), 100000);
    EXPECT_GE(sink.blocks, 100000 / 16384);
    EXPECT_EQ(content_of(sink.file.get()).size(), 100000u);
    dump_discard(&run);
    EXPECT_TRUE(dump_end(&run));
}

TEST_F(dump_run_test, bytes_beyond_the_limit_are_counted_but_not_written) {
    for (size_t limit : {0, 1, 16384, 40000, 99999, 100000}) {
        fake_dumper dumper("head -c 100000 /dev/zero");
        test_sink sink;
        dump_run run;
        ASSERT_TRUE(dump_start(some_pid, &run));
        EXPECT_EQ(dump_copy_core(&run, sink.up_to(static_cast<int64_t>(limit))), 100000);
        EXPECT_EQ(content_of(sink.file.get()).size(), limit);
        dump_discard(&run);
        EXPECT_TRUE(dump_end(&run));
    }
}

TEST_F(dump_run_test, dumper_that_never_stops_writing_beyond_the_limit_is_killed) {
    fake_dumper dumper("while :; do printf rest; sleep 0.01; done", 300);
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    EXPECT_EQ(capture_stderr([&] { EXPECT_GE(dump_copy_core(&run, sink.up_to(4)), 4); }), killed_line());
    EXPECT_EQ(content_of(sink.file.get()), "rest");
    dump_discard(&run);
    EXPECT_FALSE(dump_end(&run));
}

TEST_F(dump_run_test, messages_during_the_core_are_shown_in_order) {
    fake_dumper dumper(say("one\ntwo\n") + "head -c 100000 /dev/zero\n" + say("three\n") + "exec >&-\n" +
                       say("four\n"));
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    control_text text;
    ASSERT_TRUE(dump_read_control(&run, &text));
    EXPECT_EQ(text.line(), "one\n");
    EXPECT_EQ(dump_copy_core(&run, sink.all()), 100000);
    EXPECT_EQ(capture_stderr([&] { dump_show(&run); }), "two\nthree\nfour\n");
    EXPECT_TRUE(dump_end(&run));
}

TEST_F(dump_run_test, messages_of_a_megabyte_are_shown_whole) {
    fake_dumper dumper(say("line\n") + "head -c 1000000 /dev/zero >&2\nprintf core\n");
    test_sink sink;
    dump_run run;
    ASSERT_TRUE(dump_start(some_pid, &run));
    control_text text;
    ASSERT_TRUE(dump_read_control(&run, &text));
    EXPECT_EQ(dump_copy_core(&run, sink.all()), 4);
    EXPECT_EQ(capture_stderr([&] { dump_show(&run); }).size(), 1000000u);
    EXPECT_TRUE(dump_end(&run));
}

TEST_F(dump_run_test, run_fails_at_the_control_line_if_the_dumper_cannot_be_forked) {
    int status = run_in_child([&] {
        // The limit does not apply to root.
        rlimit none = {0, 0};
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(65534) != 0) {
            return 77;
        }
        dump_run run;
        control_text text;
        bool started = dump_start(some_pid, &run);
        bool failed = run.child == -1 && !dump_read_control(&run, &text);
        dump_discard(&run);
        return started && failed && !dump_end(&run) ? 0 : 1;
    });
    if (exited_with(status, 77)) {
        GTEST_SKIP() << "needs root to become another user";
    }
    EXPECT_TRUE(exited_with(status, 0));
}
