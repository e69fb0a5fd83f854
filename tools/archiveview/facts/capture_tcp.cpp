#include "tools/archiveview/facts/capture_tcp.h"

#include <algorithm>

namespace archiveview {

namespace {

// A segment that is sent again sooner is another view of the first one: a large segment and the pieces into
// which a network card cuts it.
constexpr double least_again_seconds = 0.001;

// A segment that fills a gap later than this was sent again. Networks reorder segments by less.
constexpr double longest_reorder_seconds = 0.003;

// As many repeated acknowledgements say that a segment was lost.
constexpr unsigned loss_acknowledgements = 2;

// Of sequence number 0; nothing is sent before it.
constexpr int64_t first_position = int64_t{1} << 32;

constexpr size_t range_limit = 32;  // more gaps than any receiver reports
constexpr size_t recent_limit = 16;

}  // namespace

bool tcp_judge::begins_anew(const tcp_segment& segment, bool is_from_a) const {
    const direction& from = ends_[is_from_a ? 0 : 1];
    return segment.syn && !segment.ack && from.has_base && from.base != segment.sequence;
}

void tcp_judge::note(const tcp_segment& segment, bool is_from_a) {
    direction& from = ends_[is_from_a ? 0 : 1];
    if (!from.has_base) {
        from.has_base = true;
        from.base = segment.syn ? segment.sequence : segment.sequence - 1;
    }
}

int64_t tcp_judge::position_of(const direction& from, uint32_t sequence) {
    return from.next + static_cast<int32_t>(sequence - static_cast<uint32_t>(from.next));
}

bool tcp_judge::is_covered(const std::vector<range>& ranges, const range& part, double since) {
    return std::ranges::any_of(ranges, [&](const range& known) {
        return known.begin <= part.begin && part.end <= known.end && known.seconds >= since;
    });
}

void tcp_judge::insert(std::vector<range>* ranges, range part) {
    const auto first =
        std::ranges::find_if(*ranges, [&](const range& known) { return known.end >= part.begin; });
    auto last = first;
    for (; last != ranges->end() && last->begin <= part.end; last++) {
        part.begin = std::min(part.begin, last->begin);
        part.end = std::max(part.end, last->end);
    }
    ranges->insert(ranges->erase(first, last), part);
    if (ranges->size() > range_limit) {
        (*ranges)[1].begin = ranges->front().begin;
        ranges->erase(ranges->begin());
    }
}

void tcp_judge::add_reset(const tcp_segment& segment, bool is_from_a, conversation* counts) {
    direction& asker = ends_[is_from_a ? 1 : 0];
    if (asker.asks && segment.ack && segment.acknowledged == asker.asked + 1) {
        asker.asks = false;
        counts->refusals++;
        return;
    }
    counts->resets++;
}

void tcp_judge::add_acknowledgement(const tcp_segment& segment, direction* from) const {
    const bool is_repeated = from->has_acknowledged && from->acknowledged == segment.acknowledged;
    if (!is_repeated) {
        from->repeated = 0;
    } else if (segment.bytes == 0 && !segment.fin) {
        from->repeated++;
    }
    from->has_acknowledged = true;
    from->acknowledged = segment.acknowledged;
}

bool tcp_judge::is_sent_again(const direction& from, const direction& to, const range& part,
                              uint32_t sequence) const {
    if (is_covered(from.recent, part, part.seconds - least_again_seconds)) {
        return false;
    }
    if (is_covered(from.sent, part, 0)) {
        return true;
    }
    const bool is_missed =
        to.has_acknowledged && to.acknowledged == sequence && to.repeated >= loss_acknowledgements;
    return is_missed || part.seconds - from.advanced_at >= longest_reorder_seconds;
}

void tcp_judge::add_data(const tcp_segment& segment, bool is_from_a, double seconds, conversation* counts) {
    direction& from = ends_[is_from_a ? 0 : 1];
    const direction& to = ends_[is_from_a ? 1 : 0];
    if (!from.has_sent) {
        from.has_sent = true;
        from.next = first_position + segment.sequence;
    }
    const int64_t begin = position_of(from, segment.sequence);
    const range part = {begin, begin + segment.bytes + (segment.fin ? 1 : 0), seconds};
    const bool is_keep_alive = segment.bytes <= 1 && !segment.fin && begin == from.next - 1;
    if (part.begin == part.end || is_keep_alive) {
        return;
    }
    if (part.begin < from.next && is_sent_again(from, to, part, segment.sequence)) {
        counts->retransmissions++;
    }
    if (part.end > from.next) {
        from.next = part.end;
        from.advanced_at = seconds;
    }
    if (!is_covered(from.recent, part, seconds - least_again_seconds)) {
        if (from.recent.size() == recent_limit) {
            from.recent.erase(from.recent.begin());
        }
        from.recent.push_back(part);
    }
    insert(&from.sent, part);
}

void tcp_judge::add(const tcp_segment& segment, bool is_from_a, double seconds, conversation* counts) {
    direction& from = ends_[is_from_a ? 0 : 1];
    direction& to = ends_[is_from_a ? 1 : 0];
    if (segment.rst) {
        return add_reset(segment, is_from_a, counts);
    }
    if (segment.syn) {
        (segment.ack ? counts->accepts : counts->connects)++;
        from.asks = !segment.ack;
        from.asked = segment.sequence;
        to.asks = to.asks && !segment.ack;
        if (!from.has_sent) {
            from.has_sent = true;
            from.next = first_position + segment.sequence + 1;
        }
        return;
    }
    counts->zero_windows += segment.window == 0 && !segment.fin;
    if (segment.ack) {
        add_acknowledgement(segment, &from);
    }
    add_data(segment, is_from_a, seconds, counts);
}

}  // namespace archiveview
