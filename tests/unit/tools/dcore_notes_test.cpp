#include <elf.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "tests/unit/support/pipes.h"
#include "tools/dcore/layout.h"
#include "tools/dcore/note_writer.h"
#include "tools/dcore/thread_events.h"

namespace {

std::string note_of(const char* owner, std::string_view content) {
    test_pipe pipe;
    thread_hold hold;
    core_stream stream = stream_new(pipe.in.get(), &hold);
    note_write(&stream, NT_AUXV, owner, content.data(), content.size());
    EXPECT_EQ(stream_flush(&stream), 0);
    EXPECT_EQ(stream.position, note_length(content.size()));
    return pipe.finish();
}

}  // namespace

TEST(dcore_note, pads_owner_and_content_to_multiples_of_four) {
    for (const char* owner : {"CORE", "LINUX"}) {
        for (std::string_view content : {"", "a", "abcd", "abcde"}) {
            std::string note = note_of(owner, content);
            ASSERT_EQ(note.size(), sizeof(core_nhdr) + 8 + (content.size() + 3) / 4 * 4);
            core_nhdr head;
            memcpy(&head, note.data(), sizeof head);
            EXPECT_EQ(head.n_namesz, strlen(owner) + 1);
            EXPECT_EQ(head.n_descsz, content.size());
            EXPECT_EQ(head.n_type, static_cast<Elf32_Word>(NT_AUXV));
            EXPECT_STREQ(note.data() + sizeof head, owner);
            EXPECT_EQ(note.substr(sizeof head + 8, content.size()), content);
            EXPECT_EQ(note.find_first_not_of('\0', sizeof head + 8 + content.size()), std::string::npos);
        }
    }
}

TEST(dcore_thread_event, is_gone_for_an_ended_child_which_is_then_reaped) {
    test_pipe open_end;
    pid_t pid = fork();
    if (pid == 0) {
        open_end.in.reset();
        char byte = 0;
        (void)!read(open_end.out.get(), &byte, 1);
        _exit(0);
    }
    int status = 0;
    EXPECT_EQ(thread_poll(pid, &status), thread_event::none);
    EXPECT_FALSE(thread_has_ended(pid));
    open_end.in.reset();
    siginfo_t ended = {};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(thread_has_ended(pid));
    EXPECT_EQ(thread_poll(pid, &status), thread_event::gone);
    EXPECT_EQ(waitpid(pid, nullptr, 0), -1);
}
