// The second half of a round: who has too much, and who has gone.
#pragma once

#include <stdio.h>

struct monitor;

// Scores each process of this round, prints what has jumped on standard error and the details of every high
// score on `status` (null: nowhere). Frees the records of the processes that this round did not see.
void monitor_score(monitor* m, FILE* status);
