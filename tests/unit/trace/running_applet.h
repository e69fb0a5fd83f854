// Runs a tracer applet in a child.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/unit/support/capture.h"
#include "tests/unit/trace/tracees.h"

using main_function = int (*)(int argc, char** argv);

// A running applet whose standard output goes into memory.
class running_applet {
public:
    running_applet(main_function run, const std::vector<std::string>& list)
        : text_(memory_file()), process_([this, run, list] {
              redirection into_memory(STDOUT_FILENO, text_.get());
              return call_applet(run, list);
          }) {}
    pid_t pid() const { return process_.pid(); }
    std::string text() const { return content_of(text_.get()); }
    bool has(const std::string& what) const { return text().find(what) != std::string::npos; }
    // Waits for its end. Returns its wait status.
    int end() { return process_.end(); }
    // Sends SIGINT until the applet ends. Returns its wait status.
    int interrupt() {
        int status = -1;
        EXPECT_TRUE(eventually([&] {
            // A sanitizer defers a signal that arrives between two calls, and may lose it.
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
