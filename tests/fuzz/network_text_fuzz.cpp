// Shows any bytes as entries of the kernel's network tables: each is one whole line or none. The first byte
// selects the table; the others are the message after its netlink header.
#include <stdint.h>
#include <string.h>

#include <string_view>

#include "net/network_text.h"
#include "tests/fuzz/require.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    nlmsghdr head = {};
    if (size == 0) {
        return 0;
    }
    // In memory of exactly its size, so that reading beyond it is a fault.
    malloc_array<char> memory(static_cast<char*>(malloc(sizeof head + size - 1)));
    head.nlmsg_len = static_cast<uint32_t>(sizeof head + size - 1);
    memcpy(memory.get(), &head, sizeof head);
    memcpy(memory.get() + sizeof head, data + 1, size - 1);
    heap_text text = {.limit = 65536};
    network_text_add_entry(&text, static_cast<network_table>(data[0] % 4),
                           static_cast<const nlmsghdr*>(static_cast<const void*>(memory.get())));
    const std::string_view line = text.view();
    require(text.error == 0);
    require(line.empty() || line.find('\n') == line.size() - 1);
    return 0;
}
