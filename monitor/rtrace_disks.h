// How full the mounted file systems are, as one record of a resource trace.
#pragma once

#include "monitor/rtrace_asker.h"
#include "monitor/rtrace_record.h"

// Writes the table of what "ROOT/proc/mounts" lists: a heading, and for each mount its source, the KiB used
// and available, and where it is mounted. The products of blocks and block size are 32 bits wide, so what is
// above 4 GiB wraps; deliberate. Mounts over a network (a ':' in the source, or "//..." of smbfs or cifs) and
// those that fail or hang (rtrace_ask_mount) are left out. False when the write failed or the client went
// while a mount was being asked.
bool rtrace_sample_disks(const rtrace_sink& sink, rtrace_mounts& mounts, const char* root);
