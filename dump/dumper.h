// The external program that takes core dumps of live processes.
#pragma once

// Stores the dumper's argument vector (borrowed for the life of the process): the program, its fixed
// arguments, and two null entries, the first of which stands for the pid.
void dump_set_dumper(char** argv);

// Opens what all dumps share; call once at start-up.
void dump_init();
