// Signals that interrupt what waits.
#pragma once

// Installs a handler and then blocks or unblocks the signal: `how` is SIG_BLOCK or SIG_UNBLOCK. `flags`:
// SA_RESTART for calls that go on after the handler, or 0.
void ticks_handle(int number, void (*handler)(int), int flags, int how);

// From now on SIGALRM comes at this interval; 0 for no more.
void ticks_set(long interval_us);
