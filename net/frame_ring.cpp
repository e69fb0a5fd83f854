#include "net/frame_ring.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <bit>

namespace {

constexpr size_t smallest_block = 1u << 16;  // a multiple of every machine's page size
constexpr size_t largest_block = 1u << 18;
constexpr unsigned usual_blocks = 64;  // thin traffic fills them in half a minute
constexpr unsigned fewest_blocks = 2;  // one to read while the other is filled
constexpr unsigned frame_size = 2048;  // TPACKET_V3 checks it and does not use it

// The largest frame with the kernel's header, and how many of them fit into the smallest block.
constexpr size_t largest_slot = pcap_frame_limit + 104;
constexpr size_t slots_per_block = (smallest_block - sizeof(tpacket_block_desc)) / largest_slot;

// A ring's memory is resident from the start and cannot be swapped out.
constexpr size_t all_rings_limit = 32u << 20;
std::atomic<size_t> all_rings_bytes{0};

// Large blocks need fewer wake-ups, small ones less memory.
unsigned block_size_of(size_t ring_bytes) {
    size_t wanted = std::clamp(ring_bytes / usual_blocks, smallest_block, largest_block);
    return static_cast<unsigned>(std::bit_floor(wanted));
}

tpacket_block_desc* block_at(const frame_ring& ring, unsigned number) {
    void* block = ring.memory.get() + size_t{number} * ring.block_size;
    return static_cast<tpacket_block_desc*>(block);
}

unsigned block_after(const frame_ring& ring, unsigned number) {
    return number + 1 < ring.block_count ? number + 1 : 0;
}

// True from the moment the kernel hands a block over until it is released.
bool is_readable(const tpacket_block_desc* block) {
    return (__atomic_load_n(&block->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0;
}

void release_block(tpacket_block_desc* block) {
    __atomic_store_n(&block->hdr.bh1.block_status, uint32_t{TP_STATUS_KERNEL}, __ATOMIC_RELEASE);
}

bool is_used_up(const frame_ring& ring, const tpacket_block_desc* block) {
    return ring.taken == block->hdr.bh1.num_pkts;
}

void begin_block(frame_ring* ring, unsigned number) {
    ring->current = number;
    ring->taken = 0;
    ring->offset = 0;
}

// The block that holds the next frame; null if the kernel has not handed it over.
const tpacket_block_desc* block_to_read(frame_ring* ring) {
    for (;;) {
        const tpacket_block_desc* block = block_at(*ring, ring->current);
        if (!is_readable(block)) {
            return nullptr;
        }
        if (!is_used_up(*ring, block)) {
            return block;
        }
        unsigned next = block_after(*ring, ring->current);
        if (next == ring->oldest) {
            return nullptr;  // all blocks are read and none is released
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

// Reserves `bytes` of what all rings may have.
bool reserve(size_t bytes) {
    if (all_rings_bytes.fetch_add(bytes) + bytes <= all_rings_limit) {
        return true;
    }
    all_rings_bytes -= bytes;
    return false;
}

// Returns null on failure; the socket then has no ring.
uint8_t* map_ring(int sock, const tpacket_req3& wanted, size_t bytes) {
    if (!set_version(sock) || !set_ring(sock, wanted)) {
        return nullptr;
    }
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, sock, 0);
    if (memory == MAP_FAILED) {
        (void)set_ring(sock, {});  // or frames would go into a ring that nothing reads
        return nullptr;
    }
    // A child that inherited the mapping would keep the ring and the socket alive.
    (void)madvise(memory, bytes, MADV_DONTFORK);
    return static_cast<uint8_t*>(memory);
}

}  // namespace

void frame_ring_unmapper::operator()(uint8_t* memory) const {
    munmap(memory, bytes);
    all_rings_bytes -= bytes;
}

uint64_t frame_ring_size(unsigned frames, int seconds) {
    const uint64_t filled = frames / slots_per_block + 1;
    const int64_t used_up_by_time = int64_t{seconds} * 1000 / frame_ring_delay_ms + fewest_blocks;
    const int64_t spare = std::clamp<int64_t>(used_up_by_time, fewest_blocks, usual_blocks);
    return (filled + static_cast<uint64_t>(spare)) * smallest_block;
}

frame_ring frame_ring_open(int sock, size_t bytes) {
    const unsigned block_size = block_size_of(bytes);
    const unsigned block_count = std::max(fewest_blocks, static_cast<unsigned>(bytes / block_size));
    const size_t size = size_t{block_count} * block_size;
    tpacket_req3 wanted = {};
    wanted.tp_block_size = block_size;
    wanted.tp_block_nr = block_count;
    wanted.tp_frame_size = frame_size;
    wanted.tp_frame_nr = block_count * (block_size / frame_size);
    wanted.tp_retire_blk_tov = frame_ring_delay_ms;
    frame_ring ring;
    if (!reserve(size)) {
        return ring;
    }
    uint8_t* memory = map_ring(sock, wanted, size);
    if (!memory) {
        all_rings_bytes -= size;
        return ring;
    }
    ring.memory = {memory, frame_ring_unmapper{size}};
    ring.block_size = block_size;
    ring.block_count = block_count;
    return ring;
}

fetched_frames frame_ring_fetch(frame_ring* ring, int limit, captured_frame* frames) {
    fetched_frames fetched;
    while (fetched.count < limit) {
        const tpacket_block_desc* block = block_to_read(ring);
        if (!block) {
            break;
        }
        const uint8_t* start = reinterpret_cast<const uint8_t*>(block);
        start += ring->taken == 0 ? block->hdr.bh1.offset_to_first_pkt : ring->offset;
        const tpacket3_hdr* header = static_cast<const tpacket3_hdr*>(static_cast<const void*>(start));
        if (header->tp_snaplen == 0) {
            fetched.has_ended = true;
            break;
        }
        frames[fetched.count++] = {start + header->tp_mac,
                                   std::min(header->tp_snaplen, pcap_frame_limit),
                                   header->tp_len,
                                   {header->tp_sec, header->tp_nsec / 1000}};
        ring->offset =
            static_cast<unsigned>(start - reinterpret_cast<const uint8_t*>(block)) + header->tp_next_offset;
        ring->taken++;
    }
    ring->fetched += static_cast<uint32_t>(fetched.count);
    fetched.is_full = fetched.count == limit;
    return fetched;
}

void frame_ring_release(frame_ring* ring) {
    for (; ring->oldest != ring->current; ring->oldest = block_after(*ring, ring->oldest)) {
        release_block(block_at(*ring, ring->oldest));
    }
    tpacket_block_desc* block = block_at(*ring, ring->current);
    if (is_readable(block) && is_used_up(*ring, block)) {
        release_block(block);
        begin_block(ring, block_after(*ring, ring->current));
        ring->oldest = ring->current;
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
