// Reads any bytes as a core, in pieces. What is found is within bounds, and the same for pieces of any size.
#include <stdint.h>

#include <string>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/core.h"
#include "tools/archiveview/limits.h"

namespace {

archiveview::core_facts read_pieces(const uint8_t* data, size_t size, size_t step) {
    archiveview::core_options options;
    options.stacks = false;
    archiveview::core_reader reader("debug/name.1/core", "name", 1, size, options);
    for (size_t at = 0; at < size; at += step) {
        const size_t length = at + step < size ? step : size - at;
        reader.add({reinterpret_cast<const char*>(data) + at, length});
    }
    return reader.finish();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const archiveview::core_facts facts = read_pieces(data, size, 4096);
    require(facts.bytes == size);
    require(facts.threads.size() <= archiveview::thread_limit);
    require(facts.files.size() <= archiveview::mapping_limit);
    require(facts.is_whole || !facts.damage.empty());
    require(facts.deadlocks.size() <= facts.threads.size());
    for (const archiveview::core_deadlock& each : facts.deadlocks) {
        require(!each.tids.empty() && each.tids.size() <= facts.threads.size());
    }
    const archiveview::core_facts again = read_pieces(data, size, 61);
    require(again.threads.size() == facts.threads.size() && again.files.size() == facts.files.size());
    require(again.deadlocks.size() == facts.deadlocks.size() && again.damage == facts.damage);
    return 0;
}
