// The program that the kernel starts when a process crashes, with the core on its standard input.
//
// It drops the core, passes it to the debug daemon or uploads it, as the arguments and the device's
// configuration say. It has no terminal: what went wrong is in the system log.
#pragma once

#include <string>

#include "dump/core_upload.h"

constexpr const char* core_socket_path = "/var/run/dbg-cgi/ctrl-segf-socket";
constexpr const char* core_config_path = "/etc/conf.d/debugar.cgi";

// What the command line says about the crash.
struct core_arguments {
    const char* file_name = "core.core";  // for an upload; borrowed
    // Of the crashed program. Known only when there are at least four words behind the applet's name.
    bool has_program = false;
    unsigned long long size_limit = 0;  // bytes
    std::string path;                   // of its executable, with its slashes
    const char* name = nullptr;         // borrowed
};

// Returns null, or what is wrong with the arguments. Fewer than two words behind the applet's name are always
// right.
const char* core_arguments_parse(int argc, char** argv, core_arguments& arguments);

// Where the configuration wants cores to go.
struct core_destination {
    bool is_ftp = false;     // else: the daemon
    core_upload_target ftp;  // url may be empty: the configuration has none
};

// Reads the configuration: the first "CoreHandler" decides, its value beginning with "FTP" or not; what
// sections beginning with "CoreHandlerFtp" say behind it is the target, the last of equal keys. A file that
// can't be read means the daemon.
core_destination core_destination_read(const char* config_path);

// Connects to the daemon. Returns the descriptor, or -1 after a line on standard error. Waits for as long as
// the daemon is there but doesn't accept.
int cored_mgm_connect(const char* path = core_socket_path);

// Waits up to 5 seconds until the daemon has answered or closed, then closes `sock`.
void cored_mgm_close(int sock);

// coredump-handler [FILE [SIZE-LIMIT PATH NAME]], with "!" for "/" in PATH. Returns the exit status: 0 when
// the core was dropped as the limit wants, passed on to the daemon or uploaded whole.
int run_coredump_handler(int argc, char** argv);
