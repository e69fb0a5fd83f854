// The applet mon, which runs the leak monitor.
#pragma once

// mon [interval]: pauses `interval` microseconds (default 1000; decimal, octal or hexadecimal) between
// rounds, until SIGINT. The status file is /tmp/dbg-report.txt. Returns 0, or 1 if memory runs out.
int run_mon(int argc, char** argv);

// The same for the proc file system at `root`, with the status file at `path`.
int mon_watch(const char* root, const char* path, unsigned long interval_us);
