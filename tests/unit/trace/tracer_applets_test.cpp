// The applets as programs: how signals meet them, and the program that they look for.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/support/signals.h"
#include "tests/unit/trace/tracees.h"
#include "trace/stopper.h"
#include "trace/tracer_command.h"
#include "trace/tstrace.h"

namespace {

using main_function = int (*)(int argc, char** argv);

// An applet in a process of its own, with its text in memory.
class running_applet {
public:
    running_applet(main_function run, const std::vector<std::string>& list)
        : text_(memory_file()), process_([this, run, list] {
              redirection into_memory(STDOUT_FILENO, text_.get());
              words given(list);
              return run(given.count(), given.vector());
          }) {}
    pid_t pid() const { return process_.pid(); }
    std::string text() const { return content_of(text_.get()); }
    bool has(const std::string& what) const { return text().find(what) != std::string::npos; }
    // Ends it as Ctrl-C does. Returns its wait status.
    int interrupt() {
        int status = -1;
        EXPECT_TRUE(eventually([&] {
            // A sanitizer puts a signal off that comes between two calls, and may lose it.
            kill(pid(), SIGINT);
            return waitpid(pid(), &status, WNOHANG) == pid();
        }));
        process_.was_reaped();
        return status;
    }

private:
    unique_fd text_;
    tracee process_;
};

// tstrace, but its exit status is the signal that its command died of.
int run_tstrace_for_the_death(int argc, char** argv) {
    scoped_death_watch watch;
    return run_tstrace(argc, argv) == 0 ? last_death.load() : -1;
}

struct report_pipe {
    test_pipe report;
};

// A process that has gone through stops of its trace and sleeps from then on.
struct settled_child : report_pipe, gated_child {
    settled_child()
        : gated_child([this] {
              (void)!write(report.in.get(), "x", 1);
              return sleep_for_ever();
          }) {}
    void settle() {
        EXPECT_TRUE(eventually([this] { return is_traced(pid()); }));
        open_gate();
        char byte;
        EXPECT_EQ(read(report.out.get(), &byte, 1), 1);
        EXPECT_TRUE(child.asleep());
    }
};

// What is found of a program that is called by a path of `length` bytes.
std::string found_by_path_of(size_t length) {
    struct {
        char path[tracer_path_size];
        char guard[16];
    } room = {};
    const std::string guard(sizeof room.guard, '#');
    guard.copy(room.guard, guard.size());
    const std::string program = "bin/sh";
    // The lookup in the root puts "//" before a name.
    std::string name = std::string(length - 2 - program.size(), '/') + program;
    bool found = tracer_find_program(name.c_str(), room.path);
    EXPECT_EQ(std::string(room.guard, sizeof room.guard), guard);
    return found ? std::string(room.path, strnlen(room.path, sizeof room.path)) : "";
}

}  // namespace

TEST(run_tstrace, sigalrm_does_not_end_an_applet) {
    for (main_function run : {run_tstrace, run_stopper}) {
        tracee sleeper(sleep_for_ever);
        running_applet applet(run, {"applet", "-p", std::to_string(sleeper.pid())});
        ASSERT_TRUE(eventually([&sleeper] { return is_traced(sleeper.pid()); }));
        kill(applet.pid(), SIGALRM);
        EXPECT_TRUE(exited_with(applet.interrupt(), 0));
        expect_free(sleeper.pid());
    }
}

TEST(run_tstrace, command_is_ended_with_sigint) {
    running_applet tstrace(run_tstrace_for_the_death, {"tstrace", "sleep", "1000"});
    ASSERT_TRUE(eventually([&tstrace] { return !tstrace.text().empty(); }));
    EXPECT_TRUE(exited_with(tstrace.interrupt(), SIGINT));
}

TEST(run_stopper, says_nothing_of_an_exit_that_comes_when_it_has_been_interrupted) {
    settled_child first;
    settled_child second;
    running_applet stopper(
        run_stopper, {"stopper", "-p", std::to_string(first.pid()), "-p", std::to_string(second.pid())});
    first.settle();
    second.settle();
    // Stopped itself, it finds both at their exit when it goes on.
    kill(stopper.pid(), SIGSTOP);
    ASSERT_TRUE(eventually([&stopper] { return state_of(stopper.pid()) == 'T'; }));
    for (const settled_child* child : {&first, &second}) {
        kill(child->pid(), SIGKILL);
        ASSERT_TRUE(eventually([child] { return state_of(child->pid()) == 't'; })) << state_of(child->pid());
    }
    kill(stopper.pid(), SIGCONT);
    ASSERT_TRUE(eventually([&stopper] { return stopper.has("Trapped"); }));
    const std::string said = stopper.text();
    EXPECT_EQ(count_in(said, "Trapped"), 1u) << said;
    EXPECT_TRUE(exited_with(stopper.interrupt(), 0));
    EXPECT_EQ(stopper.text(), said);
}

TEST(tracer_find_program, path_may_fill_its_buffer_and_no_more) {
    for (size_t length : {100, tracer_path_size - 2, tracer_path_size - 1}) {
        EXPECT_EQ(found_by_path_of(length).size(), length);
    }
    for (size_t length : {tracer_path_size, tracer_path_size + 1, tracer_path_size + 2}) {
        EXPECT_EQ(found_by_path_of(length), "");
    }
}
