// Reads any bytes as a capture. Sums must agree.
#include <stdint.h>

#include <string_view>

#include "tests/fuzz/require.h"
#include "tools/archiveview/facts/capture.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    archiveview::capture_facts facts;
    archiveview::capture_parse(&facts, {static_cast<const char*>(static_cast<const void*>(data)), size});
    uint64_t of_conversations = facts.left_out, of_protocols = 0;
    for (const archiveview::conversation& one : facts.conversations) {
        require(one.packets > 0 && one.first_seconds <= one.last_seconds);
        of_conversations += one.packets;
    }
    for (const auto& [protocol, packets] : facts.packets_by_protocol) {
        of_protocols += packets;
    }
    require(of_conversations == facts.packets && of_protocols == facts.packets);
    return 0;
}
