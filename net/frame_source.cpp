#include "net/frame_source.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>

#include "common/monotonic.h"

namespace {

// If frames come more often than one in `busy_gap_ns`, they are read every `busy_pause_ms`: a wake-up for
// each costs several times as much. The pause delays the timestamps of frames that are read.
constexpr int64_t busy_gap_ns = 250000;
constexpr int busy_pause_ms = 2;

// If traffic fills a ring's blocks faster than one in `ring_gap_ns`, they are fetched every `ring_pause_ms`.
// A ring holds far more than comes in that time.
constexpr int64_t ring_gap_ns = 20000000;
constexpr int ring_pause_ms = 10;

// The time now, or the last timestamp if the clock was set back.
frame_time time_of_reading(frame_time last) {
    timeval now;
    gettimeofday(&now, nullptr);
    return std::max(last, {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec)});
}

bool is_due(const frame_source& source, const pollfd& polled) {
    return source.pause_ms > 0 || polled.revents != 0;
}

fetched_frames fetch_ring(frame_source* source, int limit) {
    captured_frame* frames = source->memory->frames;
    fetched_frames fetched = frame_ring_fetch(&source->sockets.all[0].ring, limit, frames);
    frame_sort(frames, fetched.count, &source->last);
    return fetched;
}

// Lists the batch's frames as if one frame of each socket had been read in turn, up to the first end.
// Socket i has its frames in the batch from i * share on.
fetched_frames list_in_turn(frame_source* source, const fetched_frames* of_socket, int share) {
    const frame_batch& batch = source->memory->batch;
    fetched_frames all;
    for (int turn = 0; turn < share; turn++) {
        for (int i = 0; i < source->sockets.count; i++) {
            if (turn < of_socket[i].count) {
                const int at = i * share + turn;
                source->last = time_of_reading(source->last);
                const unsigned length = batch.messages[at].msg_len;
                source->memory->frames[all.count++] = {batch.frames[at], std::min(length, pcap_frame_limit),
                                                       length, source->last};
            } else if (turn == of_socket[i].count && of_socket[i].has_ended) {
                all.has_ended = true;
                return all;
            }
        }
    }
    return all;
}

// Every socket has the same share of the batch, or the frames of one would be recorded before older ones of
// another.
fetched_frames read_sockets(frame_source* source, const pollfd* polled) {
    const int share = frame_batch::capacity / source->sockets.count;
    fetched_frames of_socket[pcap_interface_limit];
    bool is_full = false;
    for (int i = 0; i < source->sockets.count; i++) {
        if (is_due(*source, polled[i])) {
            const int sock = source->sockets.all[i].fd.get();
            of_socket[i] = frame_batch_fetch(&source->memory->batch, sock, i * share, share);
            is_full |= of_socket[i].is_full;
        }
    }
    fetched_frames all = list_in_turn(source, of_socket, share);
    all.is_full = is_full;
    return all;
}

void set_pause(frame_source* source, const fetched_frames& fetched) {
    source->pause_ms = 0;
    if (fetched.count == 0) {
        return;
    }
    const int64_t now = monotonic_ns();
    const int64_t gap_ns = source->has_ring() ? ring_gap_ns : fetched.count * busy_gap_ns;
    if (now - source->last_fetch_ns < gap_ns && !fetched.is_full) {
        source->pause_ms = source->has_ring() ? ring_pause_ms : busy_pause_ms;
    }
    source->last_fetch_ns = now;
}

// Waits until the ring hands over a block; false if it has none. A socket whose interface has gone down
// reports an error until that has been read, even if the ring still holds frames.
bool wait_for_block(int sock) {
    constexpr int patience_ms = 2 * frame_ring_delay_ms;
    pollfd wait = {sock, POLLIN, 0};
    do {
        int error;
        socklen_t size = sizeof error;
        (void)getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size);
    } while (TEMP_FAILURE_RETRY(poll(&wait, 1, patience_ms)) > 0 && (wait.revents & POLLIN) == 0);
    return (wait.revents & POLLIN) != 0;
}

}  // namespace

fetched_frames frame_source_fetch(frame_source* source, const pollfd* polled) {
    fetched_frames fetched;
    if (!source->has_ring()) {
        fetched = read_sockets(source, polled);
    } else if (is_due(*source, polled[0])) {
        fetched = fetch_ring(source, frame_fetch_limit);
    }
    set_pause(source, fetched);
    return fetched;
}

void frame_source_release(frame_source* source) {
    if (source->has_ring()) {
        frame_ring_release(&source->sockets.all[0].ring);
    }
}

uint32_t frame_source_count_due(const frame_source& source) {
    const pcap_socket& socket = source.sockets.all[0];
    return socket.ring ? frame_ring_count_unfetched(socket.ring, socket.fd.get()) : 0;
}

fetched_frames frame_source_fetch_due(frame_source* source, uint32_t limit) {
    const int at_most = static_cast<int>(std::min<uint32_t>(limit, frame_fetch_limit));
    fetched_frames fetched;
    while (fetched.count == 0 && !fetched.has_ended && wait_for_block(source->sockets.all[0].fd.get())) {
        fetched = fetch_ring(source, at_most);
    }
    return fetched;
}
