// Samples the usage of the mounted file systems as one record of a resource trace.
#pragma once

#include "monitor/rtrace_asker.h"
#include "monitor/rtrace_record.h"

// Writes a table with a heading and a line for each mount in "ROOT/proc/mounts": its source, the KiB used and
// available, and its mount point. Deliberately, blocks are multiplied by block size in 32 bits, so sizes of 4
// GiB and more wrap. Skips network mounts (a ':' in the source, or "//..." with smbfs or cifs) and mounts
// that fail or hang (rtrace_ask_mount). False if the write fails or the client closes its side while a mount
// is asked.
bool rtrace_sample_disks(const rtrace_sink& sink, rtrace_mounts& mounts, const char* root);
