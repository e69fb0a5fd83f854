// Returns memory to the system after a long job.
#pragma once

// Returns memory that an idle process does not need: the free heap, and the pages of the program and its
// libraries, which the kernel reads from their files again on next use. A debugger's breakpoints are lost.
void give_memory_back();
