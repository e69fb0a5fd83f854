#include "trace/stopper.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "tests/unit/trace/running_applet.h"

namespace {

struct report_pipe {
    test_pipe report;
};

// A process that sleeps after its first stops in a trace.
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

std::string trapped(pid_t pid, int code) {
    return "stopper: Trapped pid=" + std::to_string(pid) + " exit code " + std::to_string(code) + "\n";
}

}  // namespace

TEST(run_stopper, ignores_exits_after_its_interrupt) {
    settled_child first;
    settled_child second;
    running_applet stopper(
        run_stopper, {"stopper", "-p", std::to_string(first.pid()), "-p", std::to_string(second.pid())});
    first.settle();
    second.settle();
    // The stopper is stopped while both are killed, so it finds both at their exit.
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

TEST(run_stopper, reports_the_exit_call_and_holds_the_process_at_its_exit) {
    gated_child child([] { return 1; });
    running_applet stopper(run_stopper, {"stopper", "-p", std::to_string(child.pid())});
    ASSERT_TRUE(eventually([&child] { return is_traced(child.pid()); }));
    child.open_gate();
    const std::string both = trapped(child.pid(), 1) + trapped(child.pid(), 1 << 8);
    ASSERT_TRUE(eventually([&] { return stopper.text() == both; })) << stopper.text();
    EXPECT_EQ(state_of(child.pid()), 't');
    EXPECT_TRUE(exited_with(stopper.interrupt(), 0));
    EXPECT_EQ(stopper.text(), both);
    EXPECT_TRUE(exited_with(child.child.end(), 1));
}
