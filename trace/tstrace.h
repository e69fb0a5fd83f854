// The system-call tracer.
#pragma once

// tstrace [ -p PID ]... [ COMMAND [ ARGUMENT ... ] ]: prints every system call, signal and exit of the
// processes, or of the command, until they have ended or SIGINT comes. Status 0; 1 when there is no such
// command.
int run_tstrace(int argc, char** argv);
