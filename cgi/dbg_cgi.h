// The debug CGI daemon.
#pragma once

// The applet: returns the exit status. As a daemon it comes back only from a failed start; help and bad
// options end the process.
int run_dbg_cgi(int argc, char** argv);
