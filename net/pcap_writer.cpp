#include "net/pcap_writer.h"

#include <errno.h>
#include <poll.h>

#include <algorithm>

#include "net/pcap_format.h"

namespace {

constexpr int zero_pieces = 22;  // enough for the largest padding record
char zeros[pcap_zeros_size];     // never written; not const, so that it takes no space in the executable

iovec piece_of(const void* bytes, size_t size) {
    return {const_cast<void*>(bytes), size};
}

// Points `pieces` at up to `*count` zero bytes. Returns how many pieces are used, and subtracts their bytes
// from `*count`.
int fill_with_zeros(iovec (&pieces)[zero_pieces], uint64_t* count) {
    int used = 0;
    while (*count > 0 && used < zero_pieces) {
        size_t size = static_cast<size_t>(std::min<uint64_t>(*count, pcap_zeros_size));
        pieces[used++] = piece_of(zeros, size);
        *count -= size;
    }
    return used;
}

// A blocking writev returns only when all its pieces are written, so progress is reported after a few.
int pieces_at_once(const pcap_writer& out, int count) {
    constexpr int few = 8;
    return out.progress.call ? std::min(count, few) : count;
}

void wait_until_writable(int fd) {
    pollfd wait = {fd, POLLOUT, 0};
    (void)poll(&wait, 1, -1);  // the next write reports any error
}

// Removes `done` bytes from the front of the pieces. Returns how many pieces are used up.
int advance(iovec* pieces, int count, size_t done) {
    int used = 0;
    while (used < count && done >= pieces[used].iov_len) {
        done -= pieces[used++].iov_len;
    }
    if (used < count) {
        pieces[used].iov_base = static_cast<char*>(pieces[used].iov_base) + done;
        pieces[used].iov_len -= done;
    }
    return used;
}

}  // namespace

bool pcap_write(pcap_writer* out, iovec* pieces, int count) {
    while (count > 0) {
        ssize_t done = writev(out->fd, pieces, pieces_at_once(*out, count));
        if (done >= 0) {
            out->written += static_cast<uint64_t>(done);
            if (out->progress.call) {
                out->progress.call(out->progress.cookie);
            }
            int used = advance(pieces, count, static_cast<size_t>(done));
            pieces += used;
            count -= used;
        } else if (errno == EAGAIN) {
            wait_until_writable(out->fd);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool pcap_write_file_header(pcap_writer* out) {
    static constexpr pcap_file_header header;
    iovec piece = piece_of(&header, sizeof header);
    return pcap_write(out, &piece, 1);
}

const void* pcap_zeros() {
    return zeros;
}

bool pcap_write_zeros(pcap_writer* out, uint64_t count) {
    while (count > 0) {
        iovec pieces[zero_pieces];
        int used = fill_with_zeros(pieces, &count);
        if (!pcap_write(out, pieces, used)) {
            return false;
        }
    }
    return true;
}

bool pcap_pad(pcap_writer* out, uint32_t total) {
    while (out->written < total) {
        uint32_t size = pcap_padding_size(total - static_cast<uint32_t>(out->written));
        uint64_t body = size;
        if (size >= sizeof(pcap_record_header)) {
            body -= sizeof(pcap_record_header);
            uint32_t length = static_cast<uint32_t>(body);
            pcap_record_header header = {0, 0, length, length};
            iovec piece = piece_of(&header, sizeof header);
            if (!pcap_write(out, &piece, 1)) {
                return false;
            }
        }
        if (!pcap_write_zeros(out, body)) {
            return false;
        }
    }
    return true;
}
