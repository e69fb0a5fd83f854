// The system-call tracer.
#pragma once

// tstrace [ -p PID ]... [ COMMAND [ ARGUMENT ... ] ]: prints every system call, signal and exit of the
// processes, or of the command, until they have ended or SIGINT comes. Returns the exit status: 1 if the
// command is not found, else 0.
int run_tstrace(int argc, char** argv);
