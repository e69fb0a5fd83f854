// Reads any bytes as a trace. Sums must agree.
#include <stdint.h>

#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    archiveview::trace_facts facts;
    archiveview::trace_parse(&facts, {static_cast<const char*>(static_cast<const void*>(data)), size});
    uint64_t calls = 0, errors = 0;
    for (const auto& [pid, process] : facts.by_pid) {
        require(pid == process.pid && pid > 0);
        require(process.waits_in.empty() || !process.has_ended);
        calls += process.calls;
        errors += process.errors;
    }
    require(calls == facts.calls && errors == facts.errors && errors <= calls);
    require(facts.bytes <= size);
    return 0;
}
