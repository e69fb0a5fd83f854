#include "net/pcap_dump.h"

#include <errno.h>
#include <limits.h>
#include <net/if.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <algorithm>

#include "common/monotonic.h"
#include "common/unique_fd.h"
#include "common/uptime.h"
#include "net/frame_batch.h"
#include "net/frame_order.h"
#include "net/frame_ring.h"
#include "net/pcap_format.h"
#include "net/pcap_sockets.h"
#include "net/pcap_writer.h"
#include "net/record_queue.h"

namespace {

// A frame is recorded only when this much would still be free behind its bytes: its own record header, and
// room for a padding record.
constexpr uint64_t reserved_bytes = 48;

enum class progress {
    go_on,
    over,      // no frame that comes from now on is recorded; those that a ring holds still are
    complete,  // nothing more is captured; the stream gets its exact size
    finished,  // the stream stays as it is
    failed,    // a write has failed
};

constexpr frame_time endless = {UINT32_MAX, UINT32_MAX};

// Places in the poll set.
constexpr int out_place = 0;
constexpr int stop_place = 1;
constexpr int first_socket_place = 2;

// While frames come faster than one in `busy_gap_ns`, they are read every `busy_pause_ms` instead of one by
// one, which costs several times as much. A frame's timestamp is that of its reading: the pause is how late
// it can be in such traffic. Where there is a ring, the timestamp is the kernel's.
constexpr int64_t busy_gap_ns = 250000;
constexpr int busy_pause_ms = 2;

// A ring hands blocks over faster than one in `ring_gap_ns` when traffic fills them. They are then taken
// every `ring_pause_ms`, which is a small part of what a ring has room for, and delays what is rarely looked
// at before the capture has ended.
constexpr int64_t ring_gap_ns = 20000000;
constexpr int ring_pause_ms = 10;

// What is too large for a stack.
struct work_memory {
    frame_batch batch;
    record_queue records;
    captured_frame frames[record_queue::capacity];
};

struct capture {
    pcap_dump_options options;
    uint32_t start;        // uptime in seconds
    int64_t time_over_ns;  // by monotonic_ns: the time limit is over by then
    frame_time last;       // the largest timestamp so far
    frame_time latest;     // frames that were received later are not recorded
    pcap_writer out;
    pcap_sockets sockets;
    work_memory* memory;
    int share;                                     // frames that are fetched from one socket at most
    fetched_frames fetched[pcap_interface_limit];  // of each socket
    pollfd wait[first_socket_place + pcap_interface_limit];
    nfds_t wait_count;
    int pause_ms;     // 0: frames are waited for
    int64_t last_ns;  // when frames were fetched last
};

bool is_limited(const capture& c) {
    return c.options.duration != 0 || c.options.max_total != 0;
}

// Whether the output is worth watching for what its peer does: a regular file can always be read.
bool has_peer(int fd) {
    struct stat status;
    return fstat(fd, &status) != 0 || !S_ISREG(status.st_mode);
}

void watch(capture& c) {
    bool watch_output = has_peer(c.out.fd) || !is_limited(c);
    c.wait[out_place] = {watch_output ? c.out.fd : -1, POLLIN, 0};
    c.wait[stop_place] = {c.options.stop_fd, POLLIN, 0};
    for (int i = 0; i < c.sockets.count; i++) {
        c.wait[first_socket_place + i] = {c.sockets.all[i].fd.get(), POLLIN, 0};
    }
    c.wait_count = first_socket_place + static_cast<unsigned>(c.sockets.count);
}

bool is_ready(const capture& c, int place) {
    return c.wait[place].revents != 0;
}

// How long to wait for frames in ms, -1 for ever; 0 when the time is over.
int time_left_ms(const capture& c) {
    if (c.options.duration == 0) {
        return -1;
    }
    int64_t left = c.options.duration - int64_t{ptime() - c.start};
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT_MAX / 1000) * 1000);
}

// Throws away what the peer of the output sent.
progress drain_output(capture& c) {
    char sent[pcap_frame_limit];
    ssize_t got = read(c.out.fd, sent, sizeof sent);
    if (got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR))) {
        return progress::go_on;
    }
    if (!is_limited(c)) {
        return progress::finished;
    }
    // A browser may have closed its sending side alone, and the download goes on; looking again would find
    // the same for ever. One that has gone altogether, which poll tells unasked, won't take the padding
    // either.
    bool is_gone = (c.wait[out_place].revents & (POLLERR | POLLHUP)) != 0;
    c.wait[out_place] = {is_gone ? -1 : c.out.fd, 0, 0};
    return is_gone && c.options.max_total != 0 ? progress::failed : progress::go_on;
}

// Whether the kernel hands the frames over in memory that it shares.
bool has_ring(const capture& c) {
    return c.sockets.all[0].ring.memory != nullptr;  // which only one that is alone has
}

// How many frames each socket gives in turn: the same number for all, so that the order of the frames is the
// one in which reading one frame of each socket after the other would find them.
int share_of(const capture& c) {
    return has_ring(c) ? record_queue::capacity : frame_batch::capacity / c.sockets.count;
}

// Where the frames that were fetched from socket `i` are listed.
captured_frame* frames_of(const capture& c, int i) {
    return c.memory->frames + static_cast<size_t>(i) * static_cast<size_t>(c.share);
}

fetched_frames fetch(capture& c, int i) {
    pcap_socket& socket = c.sockets.all[i];
    captured_frame* into = frames_of(c, i);
    if (!has_ring(c)) {
        return fetch_frames(&c.memory->batch, socket.fd.get(), i * c.share, into, c.share);
    }
    return frame_ring_fetch(&socket.ring, into, c.share);
}

// Returns how many there are.
int fetch_all(capture& c) {
    int count = 0;
    for (int i = 0; i < c.sockets.count; i++) {
        c.fetched[i] = {};
        if (c.pause_ms > 0 || is_ready(c, first_socket_place + i)) {
            c.fetched[i] = fetch(c, i);
            count += c.fetched[i].count;
        }
    }
    return count;
}

bool write_all(capture& c) {
    bool is_written = record_queue_write(&c.memory->records, &c.out);
    if (has_ring(c)) {
        frame_ring_release(&c.sockets.all[0].ring);
    }
    return is_written;
}

bool has_room(const capture& c, unsigned frame_length) {
    uint64_t length = c.options.snaplen != 0 ? c.options.snaplen : frame_length;
    uint64_t used = c.out.written + c.memory->records.bytes;
    return c.options.max_total == 0 || used + length + reserved_bytes < c.options.max_total;
}

// By now, or by the frame before where the clock has been set back.
frame_time time_of_reading(const capture& c) {
    timeval now;
    gettimeofday(&now, nullptr);
    return std::max(c.last, {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec)});
}

progress record_frame(capture& c, captured_frame frame) {
    if (!has_ring(c)) {
        frame.time = c.last = time_of_reading(c);
    }
    if (c.latest < frame.time || !has_room(c, frame.length)) {
        return progress::complete;
    }
    return record_queue_add(&c.memory->records, &c.out, frame, c.options.snaplen) ? progress::go_on
                                                                                  : progress::failed;
}

// Makes records of what was fetched: the first frame of each socket, the second of each, and so on.
progress record_all(capture& c) {
    for (int turn = 0; turn < c.share; turn++) {
        for (int i = 0; i < c.sockets.count; i++) {
            const fetched_frames& fetched = c.fetched[i];
            progress then = progress::go_on;
            if (turn < fetched.count) {
                then = record_frame(c, frames_of(c, i)[turn]);
            } else if (turn == fetched.count && fetched.ended) {
                then = has_ring(c) ? progress::over : progress::complete;
            }
            if (then != progress::go_on) {
                return then;
            }
        }
    }
    return progress::go_on;
}

// Whether there may be more frames than could be fetched.
bool is_more_queued(const capture& c) {
    return std::any_of(c.fetched, c.fetched + c.sockets.count,
                       [&c](const fetched_frames& each) { return each.count == c.share; });
}

// Decides how the next frames are waited for, after `count` came.
void set_pace(capture& c, int count) {
    c.pause_ms = 0;
    if (count > 0) {
        int64_t now = monotonic_ns();
        bool is_busy = now - c.last_ns < (has_ring(c) ? ring_gap_ns : count * busy_gap_ns);
        if (is_busy && !is_more_queued(c)) {
            c.pause_ms = has_ring(c) ? ring_pause_ms : busy_pause_ms;
        }
        c.last_ns = now;
    }
    for (int i = 0; i < c.sockets.count; i++) {
        // What goes wrong with a socket is reported in any case.
        c.wait[first_socket_place + i].events = c.pause_ms > 0 ? 0 : POLLIN;
    }
}

// Records what was fetched, and gives it back.
progress record_fetched(capture& c) {
    if (has_ring(c)) {
        sort_frames(frames_of(c, 0), c.fetched[0].count, &c.last);
    }
    progress then = record_all(c);
    return write_all(c) ? then : progress::failed;
}

progress handle_frames(capture& c) {
    int count = fetch_all(c);
    progress then = record_fetched(c);
    set_pace(c, count);
    return then;
}

// When the time limit was over, by the clock of the frames: the output may have taken nothing for long since.
frame_time end_of_time(const capture& c) {
    const int64_t late_us = (monotonic_ns() - c.time_over_ns) / 1000;
    if (late_us <= 0) {
        return endless;
    }
    timeval now;
    gettimeofday(&now, nullptr);
    const int64_t end_us = std::max<int64_t>(int64_t{now.tv_sec} * 1000000 + now.tv_usec - late_us, 0);
    const int64_t end_s = end_us / 1000000;  // the remainder of 64 bits would be 1 KiB of code on MIPS
    return {static_cast<uint32_t>(end_s), static_cast<uint32_t>(end_us - end_s * 1000000)};
}

// Whether the capture is to stop, or the interface of its ring has gone.
bool is_ended(const capture& c) {
    return is_ready(c, stop_place) || (c.wait[first_socket_place].revents & POLLERR) != 0;
}

// Waits for something to do and does it.
progress capture_once(capture& c) {
    int timeout = time_left_ms(c);
    if (timeout == 0) {
        c.latest = end_of_time(c);
        return progress::over;
    }
    if (c.pause_ms > 0) {
        timeout = c.pause_ms;
    }
    if (poll(c.wait, c.wait_count, timeout) < 0) {
        if (errno == EINTR) {
            return progress::go_on;
        }
        perror("select");
        return progress::finished;
    }
    if (is_ready(c, out_place)) {
        progress then = drain_output(c);
        if (then != progress::go_on) {
            return then;
        }
    }
    if (has_ring(c) && is_ended(c)) {
        return progress::over;
    }
    progress then = handle_frames(c);
    return then == progress::go_on && is_ready(c, stop_place) ? progress::over : then;
}

// Waits until the ring hands frames over; false when there are none. A socket whose interface has gone says
// so until its error has been read, and hands over what it has nevertheless.
bool wait_for_ring(const pcap_socket& socket) {
    constexpr int patience_ms = 2 * frame_ring_delay_ms;  // what has come is handed over by then
    pollfd wait = {socket.fd.get(), POLLIN, 0};
    do {
        int error;
        socklen_t size = sizeof error;
        (void)getsockopt(wait.fd, SOL_SOCKET, SO_ERROR, &error, &size);
    } while (TEMP_FAILURE_RETRY(poll(&wait, 1, patience_ms)) > 0 && (wait.revents & POLLIN) == 0);
    return (wait.revents & POLLIN) != 0;
}

// Records the frames that have come and that the ring has yet to hand over, and no more than those.
progress capture_rest(capture& c) {
    pcap_socket& socket = c.sockets.all[0];
    uint32_t due = frame_ring_count_unfetched(socket.ring, socket.fd.get());
    progress then = progress::go_on;
    while (due > 0 && then == progress::go_on && wait_for_ring(socket)) {
        int most = static_cast<int>(std::min(due, static_cast<uint32_t>(c.share)));
        c.fetched[0] = frame_ring_fetch(&socket.ring, frames_of(c, 0), most);
        then = record_fetched(c);
        due -= static_cast<uint32_t>(c.fetched[0].count);
    }
    return then == progress::failed ? then : progress::complete;
}

// Returns false when a write has failed.
bool run(capture& c) {
    if (!pcap_write_file_header(&c.out)) {
        return false;
    }
    c.start = ptime();
    c.time_over_ns = monotonic_ns() + int64_t{c.options.duration} * 1000000000;
    watch(c);
    progress then = progress::go_on;
    while (then == progress::go_on) {
        then = capture_once(c);
    }
    if (then == progress::over) {
        then = has_ring(c) ? capture_rest(c) : progress::complete;
    }
    if (then == progress::complete) {
        return pcap_pad(&c.out, c.options.max_total);
    }
    return then != progress::failed;
}

// A larger ring would hold frames that can't be recorded.
uint64_t useful_ring_size(const pcap_dump_options& options) {
    if (options.max_total == 0) {
        return UINT64_MAX;
    }
    const uint32_t smallest_record = sizeof(pcap_record_header) + std::clamp(options.snaplen, 1u, 65535u);
    return frame_ring_size(options.max_total / smallest_record,
                           options.duration != 0 ? options.duration : INT_MAX);
}

}  // namespace

int32_t pcap_dump_with(char* interfaces, int out_fd, const pcap_dump_options& options) {
    capture c = {};
    unique_malloc<work_memory> memory(static_cast<work_memory*>(calloc(1, sizeof(work_memory))));
    if (!memory) {
        return -1;
    }
    frame_batch_prepare(&memory->batch);
    c.options = options;
    c.latest = endless;
    c.out.fd = out_fd;
    c.out.progress = options.progress;
    c.memory = memory.get();
    c.sockets = pcap_open_sockets(pcap_list_interfaces(interfaces, if_nametoindex), options.filter,
                                  options.promisc, useful_ring_size(options));
    if (c.sockets.count == 0) {
        return 0;
    }
    c.share = share_of(c);
    bool is_whole = run(c);
    pcap_close_sockets(&c.sockets);
    return is_whole ? static_cast<int32_t>(std::min<uint64_t>(c.out.written, INT32_MAX)) : -1;
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
