#include "dump/dumper.h"

#include <fcntl.h>

namespace {

struct dumper_settings {
    char** argv = nullptr;
    int argc = 0;  // entries up to and including the first null, whose place the pid takes
    int null_fd = -1;
};
dumper_settings dumper;

}  // namespace

void dump_set_dumper(char** argv) {
    dumper.argv = argv;
    dumper.argc = 1;
    while (argv[dumper.argc - 1]) {
        dumper.argc++;
    }
}

void dump_init() {
    dumper.null_fd = open("/dev/null", O_RDWR | O_CLOEXEC);
}
