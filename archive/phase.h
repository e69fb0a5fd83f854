// The time limit of an archive's phases, which guards against a member that hangs.
//
// It uses the process's alarm(2): SIGALRM ends a process whose phase makes no progress for phase_seconds.
#pragma once

constexpr unsigned phase_seconds = 300;

// Starts a new phase, with its full time.
void phase_begin();

// Restarts the limit after progress. Does nothing outside an archive.
void phase_progress();

// Ends the last phase and the limit.
void phase_end();
