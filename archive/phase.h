// The time limit of an archive's phases: the guard against a member that hangs.
//
// It is the process's one alarm(2), whose signal ends the process: a phase that makes no progress for
// phase_seconds does so.
#pragma once

constexpr unsigned phase_seconds = 300;

// Starts the limit anew.
void phase_begin();

// Output has gone out: a slow reader that still reads is no hang. Does nothing outside of an archive.
void phase_progress();

// No limit any more.
void phase_end();
