#include "net/frame_ring.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <bit>

namespace {

constexpr size_t smallest_block = 1u << 16;  // a multiple of the page size of every machine
constexpr size_t largest_block = 1u << 18;
constexpr unsigned usual_blocks = 64;  // thin traffic fills them in half a minute
constexpr unsigned fewest_blocks = 2;  // one to read while the other is filled
constexpr unsigned frame_size = 2048;  // has to be given, and means nothing here

// The largest frame with the kernel's header before it, and how many of them a block has at least.
constexpr size_t largest_slot = pcap_frame_limit + 104;
constexpr size_t slots_per_block = (smallest_block - sizeof(tpacket_block_desc)) / largest_slot;

// Large blocks take fewer wake-ups; small ones, less memory.
unsigned block_size_of(size_t ring_bytes) {
    size_t wanted = std::clamp(ring_bytes / usual_blocks, smallest_block, largest_block);
    return static_cast<unsigned>(std::bit_floor(wanted));
}

tpacket_block_desc* block_at(const frame_ring& ring, unsigned number) {
    void* block = ring.memory + size_t{number} * ring.block_size;
    return static_cast<tpacket_block_desc*>(block);
}

unsigned after(const frame_ring& ring, unsigned number) {
    return number + 1 < ring.blocks ? number + 1 : 0;
}

// Whether a block has been handed over and not been given back.
bool is_ours(const tpacket_block_desc* block) {
    return (__atomic_load_n(&block->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0;
}

void give_back(tpacket_block_desc* block) {
    __atomic_store_n(&block->hdr.bh1.block_status, uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
}

bool is_used_up(const frame_ring& ring, const tpacket_block_desc* block) {
    return ring.taken == block->hdr.bh1.num_pkts;
}

void begin_block(frame_ring* ring, unsigned number) {
    ring->block = number;
    ring->taken = 0;
    ring->offset = 0;
}

// The block with the next frame; null when the kernel has not handed it over.
const tpacket_block_desc* block_to_read(frame_ring* ring) {
    for (;;) {
        const tpacket_block_desc* block = block_at(*ring, ring->block);
        if (!is_ours(block)) {
            return nullptr;
        }
        if (!is_used_up(*ring, block)) {
            return block;
        }
        unsigned next = after(*ring, ring->block);
        if (next == ring->first) {
            return nullptr;  // all blocks are read, and none given back
        }
        begin_block(ring, next);
    }
}

bool set_version(int sock) {
    int version = TPACKET_V3;
    return setsockopt(sock, SOL_PACKET, PACKET_VERSION, &version, sizeof version) == 0;
}

bool set_ring(int sock, const tpacket_req3& wanted) {
    return setsockopt(sock, SOL_PACKET, PACKET_RX_RING, &wanted, sizeof wanted) == 0;
}

}  // namespace

uint64_t frame_ring_size(unsigned frames, int seconds) {
    const uint64_t filled = frames / slots_per_block + 1;
    const int64_t used_up_by_time = int64_t{seconds} * 1000 / frame_ring_delay_ms + fewest_blocks;
    const int64_t spare = std::clamp<int64_t>(used_up_by_time, fewest_blocks, usual_blocks);
    return (filled + static_cast<uint64_t>(spare)) * smallest_block;
}

bool frame_ring_open(frame_ring* ring, int sock, size_t bytes) {
    const unsigned block_size = block_size_of(bytes);
    const unsigned blocks = std::max(fewest_blocks, static_cast<unsigned>(bytes / block_size));
    tpacket_req3 wanted = {};
    wanted.tp_block_size = block_size;
    wanted.tp_block_nr = blocks;
    wanted.tp_frame_size = frame_size;
    wanted.tp_frame_nr = blocks * (block_size / frame_size);
    wanted.tp_retire_blk_tov = frame_ring_delay_ms;
    if (!set_version(sock) || !set_ring(sock, wanted)) {
        return false;
    }
    size_t size = size_t{blocks} * block_size;
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, sock, 0);
    if (memory == MAP_FAILED) {
        (void)set_ring(sock, {});  // or frames would go where nobody sees them
        return false;
    }
    // A child that goes on without the ring would keep it, and the socket with it, as long as it lives.
    (void)madvise(memory, size, MADV_DONTFORK);
    *ring = {
        .memory = static_cast<uint8_t*>(memory), .size = size, .block_size = block_size, .blocks = blocks};
    return true;
}

void frame_ring_close(frame_ring* ring) {
    if (ring->memory) {
        munmap(ring->memory, ring->size);
    }
    *ring = {};
}

fetched_frames frame_ring_fetch(frame_ring* ring, captured_frame* into, int room) {
    fetched_frames fetched;
    while (fetched.count < room) {
        const tpacket_block_desc* block = block_to_read(ring);
        if (!block) {
            break;
        }
        const uint8_t* start = reinterpret_cast<const uint8_t*>(block);
        start += ring->taken == 0 ? block->hdr.bh1.offset_to_first_pkt : ring->offset;
        const tpacket3_hdr* frame = static_cast<const tpacket3_hdr*>(static_cast<const void*>(start));
        if (frame->tp_snaplen == 0) {
            fetched.ended = true;
            break;
        }
        into[fetched.count++] = {start + frame->tp_mac,
                                 std::min(frame->tp_snaplen, pcap_frame_limit),
                                 {frame->tp_sec, frame->tp_nsec / 1000}};
        ring->offset =
            static_cast<unsigned>(start - reinterpret_cast<const uint8_t*>(block)) + frame->tp_next_offset;
        ring->taken++;
    }
    ring->fetched += static_cast<uint32_t>(fetched.count);
    return fetched;
}

void frame_ring_release(frame_ring* ring) {
    for (; ring->first != ring->block; ring->first = after(*ring, ring->first)) {
        give_back(block_at(*ring, ring->first));
    }
    tpacket_block_desc* current = block_at(*ring, ring->block);
    if (is_ours(current) && is_used_up(*ring, current)) {
        give_back(current);
        begin_block(ring, after(*ring, ring->block));
        ring->first = ring->block;
    }
}

uint32_t frame_ring_count_unfetched(const frame_ring& ring, int sock) {
    tpacket_stats_v3 counts = {};
    socklen_t size = sizeof counts;
    if (getsockopt(sock, SOL_PACKET, PACKET_STATISTICS, &counts, &size) != 0) {
        return 0;
    }
    return counts.tp_packets - counts.tp_drops - ring.fetched;
}
