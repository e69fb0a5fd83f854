#include "trace/strace.h"

// The engine is not wired up yet: every trace is empty.
void do_strace(strace_ctx* /*ctx*/) {}
