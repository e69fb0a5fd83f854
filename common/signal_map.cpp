#include "common/signal_map.h"

#include <iterator>

namespace {

constexpr const char* signal_names[] = {
    nullptr,   "SIGHUP",  "SIGINT",  "SIGQUIT", "SIGILL",    "SIGTRAP", "SIGABRT", "SIGEMT",
    "SIGFPE",  "SIGKILL", "SIGBUS",  "SIGSEGV", "SIGSYS",    "SIGPIPE", "SIGALRM", "SIGTERM",
    "SIGUSR1", "SIGUSR2", "SIGCHLD", "SIGPWR",  "SIGWINCH",  "SIGURG",  "SIGPOLL", "SIGSTOP",
    "SIGTSTP", "SIGCONT", "SIGTTIN", "SIGTTOU", "SIGVTALRM", "SIGPROF", "SIGXCPU", "SIGXFSZ",
};
static_assert(std::size(signal_names) == 32);

}  // namespace

const char* signal_map_sig2name(unsigned sig) {
    if (sig >= std::size(signal_names) || !signal_names[sig]) {
        return "Invalid";
    }
    return signal_names[sig];
}
