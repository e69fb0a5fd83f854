#include "net/frame_ring.h"

#include <linux/if_packet.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

// A slot holds the kernel's own header of a frame and what is recorded of the frame.
constexpr unsigned slot_size = 2048;
constexpr unsigned block_size = 65536;  // a multiple of the page size of every machine

tpacket2_hdr* slot_at(const frame_ring& ring, unsigned number) {
    void* slot = ring.memory + size_t{number} * slot_size;
    return static_cast<tpacket2_hdr*>(slot);
}

bool set_version(int sock) {
    int version = TPACKET_V2;  // the kernel takes no other one while there is a ring
    return setsockopt(sock, SOL_PACKET, PACKET_VERSION, &version, sizeof version) == 0;
}

bool set_ring(int sock, const tpacket_req& wanted) {
    return setsockopt(sock, SOL_PACKET, PACKET_RX_RING, &wanted, sizeof wanted) == 0;
}

}  // namespace

bool frame_ring_open(frame_ring* ring, int sock, size_t bytes) {
    unsigned blocks = std::max(1u, static_cast<unsigned>(bytes / block_size));
    tpacket_req wanted = {block_size, blocks, slot_size, blocks * (block_size / slot_size)};
    if (!set_version(sock) || !set_ring(sock, wanted)) {
        return false;
    }
    size_t size = size_t{blocks} * block_size;
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, sock, 0);
    if (memory == MAP_FAILED) {
        (void)set_ring(sock, {});  // or frames would go where nobody sees them
        return false;
    }
    *ring = {static_cast<uint8_t*>(memory), size, wanted.tp_frame_nr, 0};
    return true;
}

void frame_ring_close(frame_ring* ring) {
    if (ring->memory) {
        munmap(ring->memory, ring->size);
    }
    *ring = {};
}

fetched_frames frame_ring_fetch(const frame_ring& ring, captured_frame* into, int room) {
    fetched_frames fetched;
    unsigned number = ring.next;
    int most = std::min(room, static_cast<int>(ring.slots));
    while (fetched.count < most) {
        const tpacket2_hdr* slot = slot_at(ring, number);
        if ((__atomic_load_n(&slot->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) {
            break;
        }
        if (slot->tp_snaplen == 0) {
            fetched.ended = true;
            break;
        }
        into[fetched.count++] = {reinterpret_cast<const uint8_t*>(slot) + slot->tp_mac,
                                 std::min(slot->tp_snaplen, pcap_frame_limit)};
        number = number + 1 < ring.slots ? number + 1 : 0;
    }
    return fetched;
}

void frame_ring_release(frame_ring* ring, int count) {
    for (; count > 0; count--) {
        __atomic_store_n(&slot_at(*ring, ring->next)->tp_status, uint32_t{TP_STATUS_KERNEL},
                         __ATOMIC_RELEASE);
        ring->next = ring->next + 1 < ring->slots ? ring->next + 1 : 0;
    }
}
