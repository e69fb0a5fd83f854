// zarvo: a toolbox of debugging applets in one executable.
#include <signal.h>

#include "app/applets.h"

int main(int argc, char** argv) {
    // A reader that goes away shows as EPIPE, in every applet.
    signal(SIGPIPE, SIG_IGN);
    // A starter that ignores SIGCHLD would have the kernel reap the children that the applets wait for.
    signal(SIGCHLD, SIG_DFL);
    return app_dispatch(argc, argv, app_table);
}
