// The kernel's log as an archive member.
#pragma once

#include "archive/tar.h"

// Stores the kernel's whole ring buffer as "dmesg.txt", in the form of syslog(2): each line begins with its
// level, "<6>". Nothing is removed from it. If the log is empty or cannot be read, there is no member; if
// memory runs out or the text exceeds 16 MiB, it is the newest part. Failures are noted in the manifest.
// Returns 0, or 1 if the archive cannot be written.
int stream_dmesg(tar_handle* t);

// The same with another call instead of klogctl(3).
int stream_dmesg_from(tar_handle* t, int (*klog)(int action, char* bytes, int size));
