// The second half of a round of the leak monitor: scoring.
#pragma once

#include <stdio.h>

struct monitor;

// Scores the processes that this round has sampled. Prints a line on standard error for each score that has
// jumped, and the details of each high score on `status` (null: no details). Removes the records of all other
// processes.
void monitor_score(monitor* m, FILE* status);
