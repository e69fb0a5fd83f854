#include "trace/tstrace.h"

#include <stdint.h>

#include "common/safe_io.h"
#include "trace/tracer_command.h"

namespace {

constexpr const char* usage =
    "USAGE: tstrace [ -ppid ] [ command [ arg ... ] ]\n\n"
    "-p<pid>\tAdd a pid to trace, can be given multiple times.";

int32_t tstrace_write(void* cookie, const char* text, int length) {
    int fd = static_cast<int>(reinterpret_cast<intptr_t>(cookie));
    (void)safe_write(fd, text, static_cast<unsigned>(length));
    return tracer_stopped() ? 0 : 1;
}

}  // namespace

int run_tstrace(int argc, char** argv) {
    return tracer_run(argc, argv, {usage, strace_everything, tstrace_write, nullptr});
}
