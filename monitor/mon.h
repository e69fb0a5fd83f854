// The leak monitor as a command.
#pragma once

// mon [interval]: a round every `interval` microseconds (default 1000; decimal, octal or hexadecimal) until
// SIGINT, with the status in /tmp/dbg-report.txt. Returns 0.
int run_mon(int argc, char** argv);

// The same for the proc file system at `root` and the status file at `path`; 1 when there is no memory for
// the monitor.
int mon_watch(const char* root, const char* path, unsigned long interval_us);
