// recorderd: receives the stream and writes it into files, of which it keeps the latest few.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "tools/sandbox.d/services/service.h"

namespace {

using namespace std::chrono_literals;
using steady = std::chrono::steady_clock;

constexpr auto file_time = 10s;
constexpr unsigned kept_files = 4;
constexpr size_t write_size = 2048;  // bytes that are collected before they are written
constexpr size_t packet_limit = 1500;

std::string file_name(unsigned number) {
    return std::string(service_recordings) + "/stream-" + std::to_string(number) + ".rec";
}

class recording {
public:
    recording() { open_next(); }

    void add(const char* packet, size_t length) {
        collected_.insert(collected_.end(), packet, packet + length);
        if (collected_.size() >= write_size) {
            write_collected();
        }
        if (steady::now() - opened_ >= file_time) {
            write_collected();
            open_next();
        }
    }

private:
    void write_collected() {
        if (write(file_.get(), collected_.data(), collected_.size()) < 0) {
            service_fail("write");
        }
        collected_.clear();
    }

    void open_next() {
        const std::string path = file_name(number_);
        file_.reset(service_check(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644), path.c_str()));
        if (number_ >= kept_files) {
            (void)unlink(file_name(number_ - kept_files).c_str());
        }
        syslog(LOG_INFO, "recording to %s", path.c_str());
        opened_ = steady::now();
        number_++;
    }

    unique_fd file_;
    unsigned number_ = 0;
    steady::time_point opened_;
    std::vector<char> collected_;
};

}  // namespace

int main() {
    openlog("recorderd", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    const unique_fd stream = service_bind(SOCK_DGRAM);
    if (mkdir(service_recordings, 0755) < 0 && errno != EEXIST) {
        service_fail(service_recordings);
    }
    recording current;
    service_publish(stream.get(), "recorderd");
    for (;;) {
        char packet[packet_limit];
        const ssize_t length = recv(stream.get(), packet, sizeof packet, 0);
        if (length > 0) {
            current.add(packet, static_cast<size_t>(length));
        } else if (length < 0 && errno != EINTR) {
            service_fail("recv");
        }
    }
}
