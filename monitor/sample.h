// The first half of a round: what every process has now.
#pragma once

struct monitor;

// Lists the processes and brings the record of each up to date; those without a readable name get none.
void monitor_sample(monitor* m);
