// Judges the TCP segments of a conversation.
#pragma once

#include <stdint.h>

#include <vector>

#include "tools/archiveview/facts/capture.h"
#include "tools/archiveview/facts/capture_frame.h"

namespace archiveview {

class tcp_judge {
public:
    // Whether the segment begins a new conversation of the same ports.
    bool begins_anew(const tcp_segment& segment, bool is_from_a) const;

    // Notes that a frame was seen, also if another interface has shown it before.
    void note(const tcp_segment& segment, bool is_from_a);

    // Adds a segment that no other interface has shown before.
    void add(const tcp_segment& segment, bool is_from_a, double seconds, conversation* counts);

private:
    // Positions in the stream do not wrap around, as sequence numbers do.
    struct range {
        int64_t begin = 0, end = 0;
        double seconds = 0;
    };
    // What one end has sent.
    struct direction {
        bool has_base = false;
        uint32_t base = 0;  // the sequence number before its first byte
        bool has_sent = false;
        int64_t next = 0;         // the end of what it has sent
        double advanced_at = 0;   // when it last sent something new
        std::vector<range> sent;  // sorted, apart from each other
        std::vector<range> recent;
        bool has_acknowledged = false;
        uint32_t acknowledged = 0;  // by its last segment
        unsigned repeated = 0;      // how often it has repeated that without data
        bool asks = false;          // its SYN has no answer yet
        uint32_t asked = 0;         // the sequence number of that SYN
    };

    static int64_t position_of(const direction& from, uint32_t sequence);
    static bool is_covered(const std::vector<range>& ranges, const range& part, double since);
    static void insert(std::vector<range>* ranges, range part);
    void add_reset(const tcp_segment& segment, bool is_from_a, conversation* counts);
    void add_acknowledgement(const tcp_segment& segment, direction* from) const;
    void add_data(const tcp_segment& segment, bool is_from_a, double seconds, conversation* counts);
    bool is_sent_again(const direction& from, const direction& to, const range& part,
                       uint32_t sequence) const;

    direction ends_[2];  // of `a` and of `b`
};

}  // namespace archiveview
