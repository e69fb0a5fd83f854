// Results of calls in a trace: which of them are errors.
#pragma once

#include <string>

#include "tools/archiveview/facts/trace_line.h"

namespace archiveview {

// The errno of a return, by the numbers of this machine; 0 if the call has succeeded, or will be restarted.
//
// On x86-64 an error is a negative result. On MIPS the kernel keeps the sign in another register, which the
// tracer does not show: EAGAIN and a read of 11 bytes look the same. There a result is an error only if the
// call could not have returned it.
int trace_error_of(const trace_line& line);

// "EAGAIN"
std::string trace_error_name(int error);

}  // namespace archiveview
