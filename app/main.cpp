// zarvo: a toolbox of debugging applets in one executable.
#include <signal.h>

#include "app/applets.h"

int main(int argc, char** argv) {
    // In every applet, a write without a reader fails with EPIPE.
    signal(SIGPIPE, SIG_IGN);
    // If the parent process ignored SIGCHLD, the kernel would reap the children that applets wait for.
    signal(SIGCHLD, SIG_DFL);
    return app_dispatch(argc, argv, app_table);
}
