// Standard input, output and error.
#pragma once

// Opens /dev/null with `flags`, as open(2) takes them, on each of the descriptors 0, 1 and 2 that is closed.
// Otherwise the next file or socket would get that number, and messages would be written into it.
void standard_fds_fill(int flags);
