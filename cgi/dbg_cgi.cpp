#include "cgi/dbg_cgi.h"

#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>

#include "archive/pipeline.h"
#include "cgi/listener.h"
#include "common/ending.h"
#include "common/standard_fds.h"
#include "common/unique_fd.h"
#include "common/unix_address.h"
#include "dump/dumper.h"
#include "monitor/monitor.h"
#include "platform/qorlink.h"
#include "proc/proc_list.h"

namespace {

constexpr const char* usage =
    "dbg-cgi 0.1\ndbg-cgi [options] [pids...]\n\n"
    "-d\tdump tar archive with core-files for pids to stdout.\n"
    "-t\tonly tar the archive.\n"
    "-i\tignore pid\n"
    "-p\tprogram to create coredumps [/usr/bin/dcore]\n"
    "-c\tcgi control socket name [/var/run/dbg-cgi/ctrl-cgi-socket]\n"
    "-s\tsegfault control socket name [/var/run/dbg-cgi/ctrl-segf-socket]\n"
    "-h\thelp";

constexpr int cgi_socket_mode = 0666;
constexpr int segfault_backlog = 2;

// Browsers and traces may hold far more connections than the usual soft limit allows.
constexpr rlim_t wanted_descriptors = 4096;

// After this time a daemon that has received a signal ends, even if something hangs.
constexpr int ending_limit_ms = 10000;

struct daemon_options {
    bool direct = false;
    bool compress = true;
    bool foreground = false;
    const char* cgi_path = "/var/run/dbg-cgi/ctrl-cgi-socket";
    const char* segfault_path = "/var/run/dbg-cgi/ctrl-segf-socket";
    const char* dumper = "/usr/bin/dcore";
    const char* dump_dir = nullptr;
};

// Fills in the options of the command line. Returns false if the help text has to be printed.
bool parse_options(int argc, char** argv, daemon_options* options) {
    for (int option; (option = getopt(argc, argv, "di:np:s:c:k:ht")) != -1;) {
        switch (option) {
            case 'd':
                options->direct = true;
                break;
            case 't':
                options->compress = false;
                break;
            case 'n':
                options->foreground = true;
                break;
            case 'i':
                proc_extra_ignore_pid = static_cast<pid_t>(strtoul(optarg, nullptr, 0));
                break;
            case 'p':
                options->dumper = optarg;
                break;
            case 'c':
                options->cgi_path = optarg;
                break;
            case 's':
                options->segfault_path = optarg;
                break;
            case 'k':
                options->dump_dir = optarg;
                break;
            default:
                return false;
        }
    }
    return true;
}

void raise_descriptor_limit() {
    rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted_descriptors) {
        limit.rlim_cur = std::min(limit.rlim_max, wanted_descriptors);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// The program and its fixed arguments. The entry after them is for the pid. They live as long as the process.
void configure_dumper(const char* program) {
    static char write_option[] = "-c";
    static char output[] = "/dev/stdout";
    static char* argv[5] = {nullptr, write_option, output, nullptr, nullptr};
    argv[0] = const_cast<char*>(program);
    dump_set_dumper(argv);
    dump_init();
}

// When a signal ends the daemon during an archive, the watchdogs are switched on first. The alarm is reset to
// its default, because it ends an archive that hangs, even if the parent process ignored it.
void catch_ending_signals() {
    constexpr int signals[] = {SIGALRM, SIGTERM, SIGHUP, SIGINT, SIGQUIT};
    signal(SIGALRM, SIG_DFL);
    (void)ending_catch(signals, ending_limit_ms);  // on failure, the signals end the daemon at once
}

// Only the archive goes to standard output: all other prints go to standard error meanwhile. Returns 0, or
// the errno of the reason why the archive is not complete.
int write_direct(bool compress) {
    fflush(stdout);
    unique_fd output(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!output) {
        return errno;
    }
    dup2(STDERR_FILENO, STDOUT_FILENO);
    const int error = (compress ? stream_tgz : stream_tar)(output.get(), archive_form::usual);
    fflush(stdout);
    dup2(output.get(), STDOUT_FILENO);
    // Some file systems report only now that they are full.
    return close(output.release()) != 0 && error == 0 ? errno : error;
}

// Returns the exit status. If standard output was closed, no archive can be written.
int run_direct(bool has_output, bool compress) {
    const int error = has_output ? write_direct(compress) : EBADF;
    if (error != 0) {
        fprintf(stderr, "debugar.cgi: the archive is not complete: %s\n", strerror(error));
    }
    return error == 0 ? 0 : 1;
}

unique_fd open_cgi_socket(const char* path) {
    unlinkat(AT_FDCWD, path, 0);
    unique_fd server(qorlink_server_socket(path, cgi_socket_mode));
    if (!server) {
        syslog(LOG_ERR, "Could not open %s: %m", path);
    } else {
        fcntl(server.get(), F_SETFD, FD_CLOEXEC);  // the library may not have done it
    }
    return server;
}

unique_fd open_segfault_socket(const char* path) {
    unlinkat(AT_FDCWD, path, 0);
    unique_fd server(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!server) {
        return server;
    }
    const unix_address address(path);  // one that is too long is cut; deliberate
    if (bind(server.get(), address.get(), address.size()) < 0 || listen(server.get(), segfault_backlog) < 0) {
        syslog(LOG_ERR, "Could not open %s: %m", path);
        return unique_fd();
    }
    return server;
}

bool start_monitor() {
    pthread_t monitor;
    errno = pthread_create(&monitor, nullptr, monitor_thread_run, nullptr);
    if (errno != 0) {
        perror("pthread_create");
        return false;
    }
    return true;
}

int run_daemon(const daemon_options& options) {
    if (!options.foreground && daemon(0, 0) < 0) {
        perror("daemon\n");
        return 1;
    }
    signal(SIGPIPE, SIG_IGN);
    catch_ending_signals();
    raise_descriptor_limit();
    unique_fd cgi_socket = open_cgi_socket(options.cgi_path);
    if (!cgi_socket) {
        return 1;
    }
    unique_fd segfault_socket = open_segfault_socket(options.segfault_path);
    if (!segfault_socket || !start_monitor()) {
        return 1;
    }
    run_listener({cgi_socket.get(), segfault_socket.get(), options.dump_dir});
}

}  // namespace

int run_dbg_cgi(int argc, char** argv) {
    const bool has_output = fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    standard_fds_fill(O_RDWR);
    openlog("dbg-cgi", LOG_PID, LOG_DAEMON);
    daemon_options options;
    if (!parse_options(argc, argv, &options)) {
        puts(usage);
        exit(1);
    }
    configure_dumper(options.dumper);
    (void)mallopt(M_ARENA_MAX, 1);  // the memory of a heap for each thread would stay after the thread's end
    if (options.direct) {
        catch_ending_signals();
        return run_direct(has_output, options.compress);
    }
    return run_daemon(options);
}
