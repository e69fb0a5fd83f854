// The tracer that holds processes at their exit.
#pragma once

// stopper [ -p PID ]... [ COMMAND [ ARGUMENT ... ] ]: reports when a process, or the command, is about to
// exit, and holds it there until SIGINT comes. Returns the exit status: 1 if the command is not found, else
// 0.
int run_stopper(int argc, char** argv);
