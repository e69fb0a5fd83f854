// The applet "pcapdump": captures an interface into a file until it is interrupted.
#pragma once

// usage: pcapdump netif dumpname [filter_portnumber]
// Returns the exit status: 1 for missing arguments or a file that can't be opened, else 0.
int run_pcapdump(int argc, char** argv);
