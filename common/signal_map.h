// Names of the device's signals.
#pragma once

// The name of signal `sig` in the numbering of Linux on MIPS (SIGUSR1 is 16), on every machine. "Invalid" for
// 0 and for 32 and above. Never null.
const char* signal_map_sig2name(unsigned sig);
