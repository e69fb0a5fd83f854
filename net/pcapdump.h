// The applet "pcapdump": captures an interface into a file until it is interrupted.
#pragma once

// usage: pcapdump netif dumpname [filter_portnumber]
// Returns the exit status: 1 if arguments are missing, the file cannot be opened or a pipe cannot be created,
// else 0.
int run_pcapdump(int argc, char** argv);
