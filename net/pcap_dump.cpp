// A frame's path: capture_once() waits and fetches what has come (frame_source_fetch), record_frames() queues
// a record of each frame (record_queue_add), and one writev writes all of them (record_queue_write).
#include "net/pcap_dump.h"

#include <errno.h>
#include <limits.h>
#include <net/if.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>

#include "common/monotonic.h"
#include "common/unique_fd.h"
#include "common/uptime.h"
#include "net/frame_source.h"
#include "net/pcap_format.h"
#include "net/pcap_sockets.h"
#include "net/pcap_writer.h"
#include "net/record_queue.h"

namespace {

// A frame is recorded only if more than this would still be free after its bytes. With padding, that is space
// for its own record header and for a padding record; without, the header takes all of it.
constexpr uint64_t padded_reserve = 48;
constexpr uint64_t unpadded_reserve = sizeof(pcap_record_header) - 1;

enum class stage {
    capturing,
    draining,  // only frames received by now are recorded
    padding,   // no more frames are recorded; a stream of exact size is filled up
    ended,     // the stream stays as it is
    failed,    // a write has failed
};

constexpr frame_time endless = {UINT32_MAX, UINT32_MAX};

// Entries of the poll set.
constexpr int output_entry = 0;
constexpr int stop_entry = 1;
constexpr int first_socket_entry = 2;

// Too large for a stack.
struct work_memory {
    frame_source_memory source;
    record_queue records;
};

struct capture {
    const pcap_dump_options& options;
    pcap_writer out;
    record_queue* records;
    frame_source source;
    uint32_t start_s = 0;         // uptime
    int64_t end_ns = 0;           // by monotonic_ns: the time limit has passed by then
    frame_time latest = endless;  // frames received later are not recorded
    pollfd polled[first_socket_entry + pcap_interface_limit] = {};

    int entry_count() const { return first_socket_entry + source.sockets.count; }
    bool is_limited() const { return options.duration != 0 || options.max_total != 0; }
    // Once the peer has closed its side, nobody may be waiting for a stream without an exact size.
    bool ends_with_peer() const { return !is_limited() || !options.is_padded; }
    bool is_stopped() const { return polled[stop_entry].revents != 0; }
};

bool is_regular_file(int fd) {
    struct stat status;
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// A regular file has no peer and is always readable, so it is not watched.
void prepare_poll(capture* c) {
    const bool has_peer = !is_regular_file(c->out.fd) || !c->is_limited();
    c->polled[output_entry] = {has_peer ? c->out.fd : -1, POLLIN, 0};
    c->polled[stop_entry] = {c->options.stop_fd, POLLIN, 0};
    for (int i = 0; i < c->source.sockets.count; i++) {
        c->polled[first_socket_entry + i].fd = c->source.sockets.all[i].fd.get();
    }
}

// The remaining time of the capture, a whole number of seconds; -1 if there is no limit.
int remaining_ms(const capture& c) {
    if (c.options.duration == 0) {
        return -1;
    }
    int64_t remaining_s = c.options.duration - int64_t{ptime() - c.start_s};
    return static_cast<int>(std::clamp<int64_t>(remaining_s, 0, INT_MAX / 1000) * 1000);
}

// Waits until something happens, at most `timeout_ms`. During a pause, frames do not end the wait, but errors
// of sockets do.
bool wait_for_events(capture* c, int timeout_ms) {
    const int pause_ms = c->source.pause_ms;
    for (int i = first_socket_entry; i < c->entry_count(); i++) {
        c->polled[i].events = pause_ms > 0 ? 0 : POLLIN;
    }
    return poll(c->polled, static_cast<nfds_t>(c->entry_count()), pause_ms > 0 ? pause_ms : timeout_ms) >= 0;
}

// Discards what the peer has sent.
stage read_from_peer(capture* c) {
    pollfd& output = c->polled[output_entry];
    char discarded[pcap_frame_limit];
    ssize_t got = read(output.fd, discarded, sizeof discarded);
    if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) {
        return stage::capturing;
    }
    if (c->ends_with_peer()) {
        return stage::ended;
    }
    // A browser that has closed only its sending side is still served, but is not polled for input again:
    // poll would report the same end of file for ever. If it has closed the connection, which poll reports
    // without being asked, nothing can be sent, not even the padding.
    const bool is_gone = (output.revents & (POLLERR | POLLHUP)) != 0;
    output = {is_gone ? -1 : output.fd, 0, 0};
    return is_gone && (c->options.max_total != 0 || !c->options.is_padded) ? stage::failed : stage::capturing;
}

bool fits(const capture& c, const captured_frame& frame) {
    const uint64_t length = c.options.snaplen != 0 ? c.options.snaplen : frame.length;
    const uint64_t used = c.out.written + c.records->bytes;
    const uint64_t reserve = c.options.is_padded ? padded_reserve : unpadded_reserve;
    return c.options.max_total == 0 || used + length + reserve < c.options.max_total;
}

// Writes the fetched frames, up to the first one that must not be recorded, and releases all of them.
stage record_frames(capture* c, const fetched_frames& fetched) {
    stage next = fetched.has_ended ? stage::draining : stage::capturing;
    for (int i = 0; i < fetched.count; i++) {
        const captured_frame& frame = c->source.memory->frames[i];
        if (c->latest < frame.time || !fits(*c, frame)) {
            next = stage::padding;
            break;
        }
        if (!record_queue_add(c->records, &c->out, frame, c->options.snaplen, c->options.is_exact)) {
            return stage::failed;
        }
    }
    const bool is_written = record_queue_write(c->records, &c->out);
    frame_source_release(&c->source);
    return is_written ? next : stage::failed;
}

// The end of the time limit by the clock of the frames. The output may have blocked for long since then.
frame_time end_of_time(const capture& c) {
    const int64_t late_us = (monotonic_ns() - c.end_ns) / 1000;
    if (late_us <= 0) {
        return endless;
    }
    timeval now;
    gettimeofday(&now, nullptr);
    const int64_t end_us = std::max<int64_t>(int64_t{now.tv_sec} * 1000000 + now.tv_usec - late_us, 0);
    const int64_t end_s = end_us / 1000000;  // a 64-bit remainder would be 1 KiB of code on MIPS
    return {static_cast<uint32_t>(end_s), static_cast<uint32_t>(end_us - end_s * 1000000)};
}

// Waits for something to do and does it.
stage capture_once(capture* c) {
    const int timeout_ms = remaining_ms(*c);
    if (timeout_ms == 0) {
        c->latest = end_of_time(*c);
        return stage::draining;
    }
    if (!wait_for_events(c, timeout_ms)) {
        if (errno == EINTR) {
            return stage::capturing;
        }
        perror("select");
        return stage::ended;
    }
    if (c->polled[output_entry].revents != 0) {
        stage next = read_from_peer(c);
        if (next != stage::capturing) {
            return next;
        }
    }
    // A ring counts what came before the end, so nothing that comes later is recorded with it.
    const pollfd* sockets = c->polled + first_socket_entry;
    if (c->source.has_ring() && (c->is_stopped() || (sockets[0].revents & POLLERR) != 0)) {
        return stage::draining;
    }
    stage next = record_frames(c, frame_source_fetch(&c->source, sockets));
    return next == stage::capturing && c->is_stopped() ? stage::draining : next;
}

// Records the frames that were received but not fetched from the ring.
stage drain(capture* c) {
    stage next = stage::capturing;
    for (uint32_t due = frame_source_count_due(c->source); due > 0 && next == stage::capturing;) {
        const fetched_frames fetched = frame_source_fetch_due(&c->source, due);
        if (fetched.count == 0) {
            break;
        }
        next = record_frames(c, fetched);
        due -= static_cast<uint32_t>(fetched.count);
    }
    return next == stage::failed ? next : stage::padding;
}

// Returns false if a write has failed.
bool run(capture* c) {
    if (!pcap_write_file_header(&c->out)) {
        return false;
    }
    c->start_s = ptime();
    c->end_ns = monotonic_ns() + int64_t{c->options.duration} * 1000000000;
    prepare_poll(c);
    stage now = stage::capturing;
    while (now == stage::capturing) {
        now = capture_once(c);
    }
    if (now == stage::draining) {
        now = drain(c);
    }
    if (now == stage::padding && c->options.is_padded) {
        return pcap_pad(&c->out, c->options.max_total);
    }
    return now != stage::failed;
}

// A larger ring would hold frames that cannot be recorded.
uint64_t useful_ring_size(const pcap_dump_options& options) {
    if (options.max_total == 0) {
        return UINT64_MAX;
    }
    // Frames of their own length take up to four times as much in the ring, with its larger header for each.
    const uint32_t bytes_per_slot = options.snaplen != 0
                                        ? sizeof(pcap_record_header) + std::min(options.snaplen, 65535u)
                                        : pcap_frame_limit / 4;
    return frame_ring_size(options.max_total / bytes_per_slot,
                           options.duration != 0 ? options.duration : INT_MAX);
}

}  // namespace

int32_t pcap_dump_with(char* interfaces, int out_fd, const pcap_dump_options& options) {
    unique_malloc<work_memory> memory = calloc_one<work_memory>();
    if (!memory) {
        return -1;
    }
    frame_batch_prepare(&memory->source.batch);
    capture c = {
        .options = options,
        .out = {out_fd, 0, options.progress},
        .records = &memory->records,
        .source = {.memory = &memory->source},
    };
    pcap_open_sockets(&c.source.sockets, pcap_list_interfaces(interfaces, if_nametoindex), options.filter,
                      options.promisc, useful_ring_size(options));
    if (c.source.sockets.count == 0) {
        return 0;
    }
    if (!run(&c)) {
        return -1;
    }
    return static_cast<int32_t>(std::min<uint64_t>(c.out.written, INT32_MAX));
}

int32_t pcap_dump(char* interfaces, int out_fd, unsigned max_total, unsigned snaplen, int duration,
                  int promisc, const sock_fprog* filter) {
    return pcap_dump_with(interfaces, out_fd,
                          {.max_total = max_total,
                           .snaplen = snaplen,
                           .duration = duration,
                           .promisc = promisc,
                           .filter = filter});
}
