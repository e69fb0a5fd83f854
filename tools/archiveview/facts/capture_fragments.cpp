#include "tools/archiveview/facts/capture_fragments.h"

#include "tools/archiveview/limits.h"

namespace archiveview {

bool fragment_table::add(const std::string& key, const fragment& part, head* first) {
    const auto found = packets_.find(key);
    if (found == packets_.end() && packets_.size() >= fragmented_limit) {
        return false;
    }
    packet& whole = found == packets_.end() ? packets_[key] : found->second;
    if (whole.parts.emplace(part.offset, part.bytes).second) {
        whole.bytes += part.bytes;
    }
    if (part.offset == 0) {
        whole.first = *first;
    }
    if (part.is_last) {
        whole.total = uint64_t{part.offset} + part.bytes;
    }
    if (whole.total == 0 || whole.bytes < whole.total || !whole.parts.contains(0)) {
        return false;
    }
    *first = whole.first;
    packets_.erase(key);
    return true;
}

}  // namespace archiveview
