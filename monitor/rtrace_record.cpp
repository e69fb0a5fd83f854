#include "monitor/rtrace_record.h"

#include <string.h>
#include <sys/time.h>

#include "common/safe_io.h"

namespace {

int64_t wall_clock_ms() {
    timeval now = {};
    gettimeofday(&now, nullptr);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_usec / 1000;
}

// Stores the header and the process id before the data. Returns the begin of the record.
char* prepend_head(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size, uint8_t more) {
    char* start = rtrace_data(sink);
    if (pid != rtrace_no_pid) {
        const int32_t number = pid;
        static_assert(sizeof number == rtrace_pid_size);
        start -= sizeof number;
        memcpy(start, &number, sizeof number);
        size += rtrace_pid_size;
    }
    start -= rtrace_header_size;
    rtrace_put_header(start, {type, size, wall_clock_ms(), more});
    return start;
}

bool write_all(const rtrace_sink& sink, const char* start, const char* end) {
    return safe_write(sink.fd, start, static_cast<unsigned>(end - start)) >= 0;
}

}  // namespace

void rtrace_put_header(char* to, const rtrace_header& header) {
    memset(to, 0, rtrace_header_size);
    memcpy(to, &header.type, sizeof header.type);
    memcpy(to + 4, &header.length, sizeof header.length);
    memcpy(to + 8, &header.time_ms, sizeof header.time_ms);
    to[16] = static_cast<char>(header.more);
}

char* rtrace_data(const rtrace_sink& sink) {
    return sink.buffer + rtrace_header_size + rtrace_pid_size;
}

bool rtrace_write_data(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size, uint8_t more) {
    return write_all(sink, prepend_head(sink, type, pid, size, more), rtrace_data(sink) + size);
}

bool rtrace_write_last_piece(const rtrace_sink& sink, rtrace_type type, pid_t pid, unsigned size) {
    const char* start = prepend_head(sink, type, pid, size, 1);
    char* closing = rtrace_data(sink) + size;
    rtrace_put_header(closing, {type, 0, wall_clock_ms(), 0});
    return write_all(sink, start, closing + rtrace_header_size);
}

bool rtrace_write_bare(const rtrace_sink& sink, rtrace_type type, uint8_t more) {
    char header[rtrace_header_size];
    rtrace_put_header(header, {type, 0, wall_clock_ms(), more});
    return write_all(sink, header, header + sizeof header);
}
