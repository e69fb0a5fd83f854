// streamd: encodes pictures in one thread and sends them, as RTP packets over loopback, in another.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "tools/sandbox.d/services/service.h"

namespace {

using namespace std::chrono_literals;
using bytes = std::vector<uint8_t>;

constexpr unsigned width = 160;
constexpr unsigned height = 90;
constexpr unsigned block = 8;  // pixels; one byte of the encoded picture stands for a square of this size
// Slow, so that five seconds of capture and of trace hold all packets with room to spare.
constexpr auto picture_time = 100ms;
constexpr uint32_t clock_rate = 90000;  // of RTP timestamps for video
constexpr uint32_t ticks_per_picture = clock_rate / 10;
constexpr uint32_t source_id = 0x5a617276;
constexpr size_t payload_limit = 160;
constexpr uint8_t rtp_version = 0x80;
constexpr uint8_t payload_type = 96;
constexpr uint8_t last_of_picture = 0x80;

// Encoded pictures that wait to be sent.
class picture_queue {
public:
    void put(bytes picture) {
        {
            std::lock_guard guard(lock_);
            pictures_.push_back(std::move(picture));
        }
        filled_.notify_one();
    }

    bytes take() {
        std::unique_lock guard(lock_);
        filled_.wait(guard, [this] { return !pictures_.empty(); });
        bytes first = std::move(pictures_.front());
        pictures_.pop_front();
        return first;
    }

private:
    std::mutex lock_;
    std::condition_variable filled_;
    std::deque<bytes> pictures_;
};

// A moving pattern of light.
std::array<uint8_t, size_t{width} * height> take_picture(uint32_t number) {
    std::array<uint8_t, size_t{width} * height> picture;
    for (unsigned y = 0; y < height; y++) {
        for (unsigned x = 0; x < width; x++) {
            picture[size_t{y} * width + x] = static_cast<uint8_t>((x * x + y * y) / 16 + 3 * number);
        }
    }
    return picture;
}

bytes encode(std::span<const uint8_t> picture) {
    bytes encoded;
    for (unsigned y = 0; y + block <= height; y += block) {
        for (unsigned x = 0; x < width; x += block) {
            unsigned sum = 0;
            for (unsigned i = 0; i < block * block; i++) {
                sum += picture[size_t{y + i / block} * width + x + i % block];
            }
            encoded.push_back(static_cast<uint8_t>(sum / (block * block)));
        }
    }
    return encoded;
}

[[noreturn]] void encode_pictures(picture_queue* queue) {
    auto next = std::chrono::steady_clock::now();
    for (uint32_t number = 0;; number++) {
        queue->put(encode(take_picture(number)));
        next += picture_time;
        std::this_thread::sleep_until(next);
    }
}

template <typename Number>
void append(bytes* packet, Number network_order) {
    const auto* raw = reinterpret_cast<const uint8_t*>(&network_order);
    packet->insert(packet->end(), raw, raw + sizeof network_order);
}

bytes make_packet(std::span<const uint8_t> payload, uint16_t sequence, uint32_t time, bool is_last) {
    bytes packet = {rtp_version, static_cast<uint8_t>(payload_type | (is_last ? last_of_picture : 0))};
    append(&packet, htons(sequence));
    append(&packet, htonl(time));
    append(&packet, htonl(source_id));
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
}

[[noreturn]] void send_pictures(int fd, picture_queue* queue) {
    uint16_t sequence = 0;
    for (uint32_t time = 0;; time += ticks_per_picture) {
        const bytes picture = queue->take();
        std::span<const uint8_t> rest(picture);
        while (!rest.empty()) {
            const auto payload = rest.first(std::min(rest.size(), payload_limit));
            rest = rest.subspan(payload.size());
            const bytes packet = make_packet(payload, sequence++, time, rest.empty());
            (void)send(fd, packet.data(), packet.size(), 0);  // a lost packet is lost, as on any network
        }
    }
}

}  // namespace

int main() {
    const unique_fd receiver = service_connect(SOCK_DGRAM, service_find("recorderd"));
    if (!receiver) {
        service_fail("connect");
    }
    picture_queue queue;
    std::thread encoder(encode_pictures, &queue);
    pthread_setname_np(encoder.native_handle(), "encoder");
    send_pictures(receiver.get(), &queue);
}
