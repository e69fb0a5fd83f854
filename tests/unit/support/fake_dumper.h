// Dumpers for tests: shell scripts.
#pragma once

#include <sys/stat.h>

#include <string>

#include "dump/dumper.h"
#include "tests/unit/support/temp_dir.h"

// A control line with its newline.
inline std::string core_announcement(const std::string& length, const std::string& pids = "") {
    return "Core of:" + length + " bytes; and covered: " + pids + "\n";
}

// A command that writes `text` to standard error.
inline std::string say(const std::string& text) {
    return "printf '%s' '" + text + "' >&2\n";
}

inline std::string announce(size_t length, const std::string& pids = "") {
    return say(core_announcement(std::to_string(length), pids));
}

// Makes a script the dumper of this process for the length of a block. The script gets the pid as "$3".
class fake_dumper {
public:
    // Long enough for a loaded machine. A test that waits for the timeout sets its own.
    static constexpr int usual_timeout_ms = 20000;

    explicit fake_dumper(const std::string& script, int timeout_ms = usual_timeout_ms)
        : path_(dir_.write_file("dumper", "#!/bin/sh\n" + script)) {
        EXPECT_EQ(chmod(path_.c_str(), 0755), 0);
        use(path_, timeout_ms);
    }
    fake_dumper(const fake_dumper&) = delete;
    fake_dumper& operator=(const fake_dumper&) = delete;
    ~fake_dumper() { use("/nonexistent/dumper", usual_timeout_ms); }

    std::string path(std::string_view name) const { return dir_.path(name); }

    // Makes an existing program, or a missing one, the dumper of this process.
    static void use(const std::string& program, int timeout_ms = usual_timeout_ms) {
        static std::string name;
        static char option[] = "-c";
        static char output[] = "/dev/stdout";
        static char* argv[5] = {nullptr, option, output, nullptr, nullptr};
        static const bool is_open = (dump_init(), true);
        EXPECT_TRUE(is_open);
        name = program;
        argv[0] = name.data();
        dump_set_dumper(argv);
        dump_set_timeout(timeout_ms);
    }

private:
    temp_dir dir_;
    std::string path_;
};
