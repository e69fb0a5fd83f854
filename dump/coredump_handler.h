// The program that the kernel starts when a process crashes, with the core on its standard input.
//
// The arguments and the device's configuration decide if the core is dropped, sent to the debug daemon or
// uploaded. Failures are reported in the system log,
// except those of the connection to the daemon, which go to standard error.
#pragma once

#include "common/unique_fd.h"
#include "dump/core_upload.h"

constexpr const char* core_socket_path = "/var/run/dbg-cgi/ctrl-segf-socket";
constexpr const char* core_config_path = "/etc/conf.d/debugar.cgi";

// What the command line says about the crash.
struct core_arguments {
    const char* file_name = "core.core";  // for an upload; borrowed
    bool has_program = false;             // the fields below are set
    unsigned long long size_limit = 0;    // of the crashed program's cores, in bytes
    const char* path = nullptr;           // of its executable; borrowed
    const char* name = nullptr;           // of its executable; borrowed
};

// Returns null, or an error message. A command line without arguments or with FILE alone is not checked.
// Changes "!" in PATH to "/", in place.
const char* core_arguments_parse(int argc, char** argv, core_arguments* arguments);

// Where the configuration sends cores.
struct core_destination {
    bool is_ftp = false;     // false: to the daemon
    bool is_whole = true;    // false: memory ran out, and `ftp` lacks a text
    core_upload_target ftp;  // `url` is null if it is not configured, or empty
};

// Reads the configuration. The value of the first "CoreHandler" selects FTP if it begins with "FTP", else the
// daemon. The target is read from the sections after it whose names begin with "CoreHandlerFtp"; if a key is
// repeated, its last value counts. If the file cannot be read, cores go to the daemon.
core_destination core_destination_read(const char* config_path);

// How long cored_mgm_close waits.
constexpr int core_answer_timeout_ms = 5000;

// Connects to the daemon. Returns an empty owner after a line on standard error. Blocks while the daemon runs
// but does not accept.
unique_fd cored_mgm_connect(const char* path = core_socket_path);

// Waits until the daemon has answered or closed, core_answer_timeout_ms at most, and closes the connection.
void cored_mgm_close(unique_fd sock);

// coredump-handler [FILE [SIZE-LIMIT PATH NAME]], with "!" for "/" in PATH. Returns the exit status: 0 if the
// core was dropped because of its limit, sent to the daemon or uploaded whole; 1 on failure.
int run_coredump_handler(int argc, char** argv);
