// Returns memory to the system after a long job.
#pragma once

// Returns to the system what an idle process does not need: free heap, and the pages of the program and its
// libraries, which are read from their files again on next use. Breakpoints set by a debugger are lost.
void give_memory_back();
