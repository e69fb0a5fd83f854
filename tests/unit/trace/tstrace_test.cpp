#include "trace/tstrace.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "tests/unit/support/pipes.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/trace/running_applet.h"
#include "trace/stopper.h"

namespace {

// run_tstrace, but returns the signal that its command died of.
int run_tstrace_and_watch(int argc, char** argv) {
    scoped_death_watch watch;
    return run_tstrace(argc, argv) == 0 ? last_death.load() : -1;
}

}  // namespace

TEST(run_tstrace, ignores_sigalrm) {
    for (main_function run : {run_tstrace, run_stopper}) {
        tracee sleeper(sleep_for_ever);
        running_applet applet(run, {"applet", "-p", std::to_string(sleeper.pid())});
        ASSERT_TRUE(eventually([&sleeper] { return is_traced(sleeper.pid()); }));
        kill(applet.pid(), SIGALRM);
        EXPECT_TRUE(exited_with(applet.interrupt(), 0));
        expect_free(sleeper.pid());
    }
}

TEST(run_tstrace, ends_its_command_with_sigint) {
    running_applet tstrace(run_tstrace_and_watch, {"tstrace", "sleep", "1000"});
    ASSERT_TRUE(eventually([&tstrace] { return !tstrace.text().empty(); }));
    EXPECT_TRUE(exited_with(tstrace.interrupt(), SIGINT));
}

TEST(run_tstrace, prints_the_lines_of_a_command) {
    running_applet tstrace(run_tstrace, {"tstrace", "/bin/sh", "-c", "exit 3"});
    ASSERT_TRUE(eventually([&tstrace] { return tstrace.has("] exit_group(3)\n"); })) << tstrace.text();
    EXPECT_TRUE(exited_with(tstrace.end(), 0));
}

TEST(run_tstrace, ends_when_its_reader_has_gone) {
    tracee busy(call_for_ever);
    test_pipe out;
    tracee tstrace([&busy, &out] {
        signal(SIGPIPE, SIG_IGN);
        dup2(out.in.get(), STDOUT_FILENO);
        out.in.reset();
        out.out.reset();
        return call_applet(run_tstrace, {"tstrace", "-p", std::to_string(busy.pid())});
    });
    out.in.reset();
    char byte;
    ASSERT_EQ(read(out.out.get(), &byte, 1), 1);
    out.out.reset();
    EXPECT_TRUE(exited_with(tstrace.end(), 0));
    expect_free(busy.pid());
}
