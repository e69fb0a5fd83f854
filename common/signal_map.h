// Names of the device's signals.
#pragma once

// The name of signal `sig` in the numbering of Linux on MIPS (SIGUSR1 is 16), whatever machine this runs on;
// "Invalid" for 0 and for 32 and more. Never null; a constant.
const char* signal_map_sig2name(unsigned sig);
