// Sends itself a signal that it handles, one that it ignores and one that kills it: SIGUSR1, SIGUSR2,
// SIGTERM.
#include <signal.h>
#include <unistd.h>

namespace {

volatile sig_atomic_t handled = 0;

void count(int) {
    handled = handled + 1;
}

}  // namespace

int main() {
    signal(SIGUSR1, count);
    signal(SIGUSR2, SIG_IGN);
    raise(SIGUSR1);
    raise(SIGUSR2);
    if (handled != 1) {
        return 1;
    }
    raise(SIGTERM);
    return 2;
}
