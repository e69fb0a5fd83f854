// A tracer that holds processes at their exit.
#pragma once

// stopper [ -p PID ]... [ COMMAND [ ARGUMENT ... ] ]: says when a process, or the command, is about to exit,
// and keeps it from going until SIGINT comes. Status 0; 1 when there is no such command.
int run_stopper(int argc, char** argv);
