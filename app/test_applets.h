// Applets that cause faults on purpose, to test the monitors that look for them.
#pragma once

// Writes "call exit" and ends through exit(0).
int run_ctest(int argc, char** argv);

// forkbomb [interval [depth]]: forks for ever, with a pause of `interval` microseconds (0: none) after each
// fork. Children of the first `depth` - 1 generations (default 1) do the same; later ones sleep.
int run_forkbomb(int argc, char** argv);

// fdleak [interval]: opens sockets and /dev/null in turn, every `interval` microseconds, until descriptors
// run out; status 0.
int run_fdleak(int argc, char** argv);

// Dies by SIGSEGV.
int run_segfault(int argc, char** argv);
