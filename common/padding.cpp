#include "common/padding.h"

#include <algorithm>
#include <cstring>

#include "common/safe_io.h"

namespace {

// Writes `count` bytes by repeating the `size` bytes of `pattern`; false at the first failed write.
bool write_repeated(int fd, const char* pattern, int size, int count) {
    for (int written = 0; written < count;) {
        int piece = std::min(count - written, size);
        if (safe_write(fd, pattern, static_cast<unsigned>(piece)) < 0) {
            return false;
        }
        written += piece;
    }
    return true;
}

}  // namespace

int pad_ascii(int fd, int count) {
    char line[80];
    memset(line, ' ', sizeof line - 1);
    line[sizeof line - 1] = '\n';
    return write_repeated(fd, line, sizeof line, count) ? 0 : 1;
}

int stream_pad(int fd, int count) {
    static constexpr char zeros[32] = {};
    return write_repeated(fd, zeros, sizeof zeros, count) ? 0 : 1;
}
