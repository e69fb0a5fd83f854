// Timer signals that interrupt system calls.
#pragma once

// Installs a handler, then blocks or unblocks the signal: `how` is SIG_BLOCK or SIG_UNBLOCK. `flags` is
// SA_RESTART if interrupted calls restart after the handler, else 0.
void ticks_handle(int number, void (*handler)(int), int flags, int how);

// Sends SIGALRM at this interval. 0 stops the timer.
void ticks_set(long interval_us);
