// Memory that a long job leaves behind.
#pragma once

// Gives the system back what this process does not need while it is idle: free heap, and the pages of
// programs and libraries, which come back from their files when they are run next. Breakpoints that a
// debugger has set are lost with them.
void give_memory_back();
