// The system's process list, as text.
#pragma once

// Runs "/bin/ps" with both of its outputs on `fd` (borrowed) and waits for it. If it cannot be started, the
// error message of sys_run is the text.
void stream_ps(int fd);
