#include "tools/archiveview/facts/core_memory.h"

#include <string.h>

#include <algorithm>

#include "tools/archiveview/facts/core_bytes.h"

namespace archiveview {

void core_memory::want(uint64_t address, size_t length) {
    std::string* bytes = &wanted_[address].bytes;
    bytes->resize(std::max(bytes->size(), length));
}

void core_memory::add_pieces(const std::vector<core_segment>& segments, uint64_t address, wanted* target) {
    size_t done = 0;
    while (done < target->bytes.size()) {
        const uint64_t at = end_of(address, done);
        auto after = std::ranges::upper_bound(segments, at, {}, &core_segment::address);
        if (after == segments.begin()) {
            return;
        }
        const core_segment& segment = *std::prev(after);
        const uint64_t skipped = at - segment.address;
        if (skipped >= segment.size || segment.offset > UINT64_MAX - segment.size) {
            return;
        }
        const size_t length =
            static_cast<size_t>(std::min<uint64_t>(target->bytes.size() - done, segment.size - skipped));
        pieces_.push_back({segment.offset + skipped, length, target, done});
        done += length;
    }
}

void core_memory::begin(std::vector<core_segment> segments) {
    std::ranges::stable_sort(segments, {}, &core_segment::address);
    for (auto& [address, target] : wanted_) {
        add_pieces(segments, address, &target);
    }
    std::ranges::sort(pieces_, {}, &piece::offset);
}

void core_memory::pass(uint64_t position, std::span<const char> bytes) {
    const uint64_t end = end_of(position, bytes.size());
    while (first_ < pieces_.size() && end_of(pieces_[first_].offset, pieces_[first_].length) <= position) {
        first_++;
    }
    for (size_t i = first_; i < pieces_.size() && pieces_[i].offset < end; i++) {
        const piece& each = pieces_[i];
        const uint64_t from = std::max(each.offset, position);
        const uint64_t to = std::min(end_of(each.offset, each.length), end);
        if (from >= to) {
            continue;
        }
        const size_t place = each.place + static_cast<size_t>(from - each.offset);
        const auto length = static_cast<size_t>(to - from);
        memcpy(each.target->bytes.data() + place, bytes.data() + (from - position), length);
        if (place == each.target->seen) {
            each.target->seen += length;
        }
    }
}

std::string_view core_memory::at(uint64_t address) const {
    auto found = wanted_.find(address);
    return found == wanted_.end() ? std::string_view()
                                  : std::string_view(found->second.bytes).substr(0, found->second.seen);
}

}  // namespace archiveview
