#include "tools/archiveview/facts/core_frames.h"

#include <gtest/gtest.h>

namespace archiveview {
namespace {

std::vector<std::string> functions_of(std::string_view text) {
    std::vector<std::string> names;
    for (const debugger_stack& stack : debugger_stacks_read(text)) {
        for (const debugger_frame& frame : stack.frames) {
            names.push_back(frame.function);
        }
    }
    return names;
}

TEST(core_frames, threads_and_their_frames_are_read) {
    const auto stacks = debugger_stacks_read(
        "[New LWP 7]\n#0  0x0000000000000001 in before () from x\n\n"
        "Thread 2 (LWP 117):\n"
        "#0  0x00007fda1a4a3f16 in lock (...) at ./nptl/lock.c:57\n"
        "#1  0x00007fda1a416b00 in ?? ()\n"
        "#2  inlined (...) at x.h:4\n\n"
        "Thread 1 (Thread 0x7f12 (LWP 7)):\n"
        "warning: a section is too small.\n"
        "#0  0x0000000000400123 in main ()\n");
    ASSERT_EQ(stacks.size(), 2u);
    EXPECT_EQ(stacks[0].tid, 117);
    ASSERT_EQ(stacks[0].frames.size(), 3u);
    EXPECT_EQ(stacks[0].frames[0].pc, 0x7fda1a4a3f16u);
    EXPECT_EQ(stacks[0].frames[0].function, "lock");
    EXPECT_EQ(stacks[0].frames[1].function, "");
    EXPECT_EQ(stacks[0].frames[2].pc, 0u);
    EXPECT_EQ(stacks[0].frames[2].function, "inlined");
    EXPECT_EQ(stacks[1].tid, 7);
    ASSERT_EQ(stacks[1].frames.size(), 1u);
    EXPECT_EQ(stacks[1].frames[0].function, "main");
}

TEST(core_frames, names_may_have_parentheses_and_blanks) {
    const std::string thread = "Thread 1 (LWP 7):\n#0  0x1 in ";
    const auto name = [&](const std::string& frame) { return functions_of(thread + frame).at(0); };
    EXPECT_EQ(name("(anonymous namespace)::server::wait (...) at server.cpp:101\n"),
              "(anonymous namespace)::server::wait");
    EXPECT_EQ(name("void (anonymous namespace)::put<int> (...)\n"), "void (anonymous namespace)::put<int>");
    EXPECT_EQ(name("pool::operator() () from /lib/x.so\n"), "pool::operator()");
    EXPECT_EQ(functions_of("Thread 1 (LWP 7):\n#1  <signal handler called>\n").at(0),
              "<signal handler called>");
}

TEST(core_frames, other_text_is_ignored) {
    for (const char* text : {"", "\n\n", "Thread 3", "Thread (LWP )", "#",
                             "Thread 1 (LWP 99999999999999):\n#0  x\n", "#0  0x1 in main ()\n"}) {
        EXPECT_TRUE(debugger_stacks_read(text).empty()) << text;
    }
}

TEST(core_frames, frames_of_a_flood_are_bounded) {
    std::string text = "Thread 1 (LWP 7):\n";
    for (int i = 0; i < 5000; i++) {
        text += "#" + std::to_string(i) + "  0x1 in \x1b[31m" + std::string(1000, 'x') + " (...)\n";
    }
    const auto stacks = debugger_stacks_read(text);
    ASSERT_EQ(stacks.size(), 1u);
    EXPECT_EQ(stacks[0].frames.size(), 256u);
    EXPECT_EQ(stacks[0].frames[0].function.size(), 200u);
    EXPECT_EQ(stacks[0].frames[0].function.front(), '?');
}

}  // namespace
}  // namespace archiveview
