// The first half of a round of the leak monitor: sampling.
#pragma once

struct monitor;

// Lists the processes and updates the record of each. A process without a readable name gets no record.
void monitor_sample(monitor* m);
