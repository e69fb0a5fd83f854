// The debug CGI daemon.
#pragma once

// The applet. Returns the exit status. A daemon returns only if its start fails. Help and bad options end the
// process.
int run_dbg_cgi(int argc, char** argv);
