#include "archive/member_dmesg.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/klog.h>

#include <algorithm>

#include "archive/manifest.h"
#include "common/unique_fd.h"

namespace {

constexpr int action_read_all = 3;
constexpr int action_size_buffer = 10;
constexpr int smallest_buffer = 16384;
constexpr int largest_buffer = 16 << 20;
// The kernel leaves out a record that does not fit whole, so a full buffer may have this many free bytes.
constexpr int longest_record = 4096;
constexpr char name[] = "dmesg.txt";

struct log_text {
    malloc_array<char> bytes = nullptr;
    int length = 0;
};

// Reads the log into a buffer that is large enough. With a smaller one, the kernel gives the newest part.
// Pages that it does not fill take no memory. Returns 0 or an errno; after ENOMEM and EFBIG, the text is the
// newest part.
int read_log(log_text* text, int (*klog)(int, char*, int)) {
    int size = std::clamp(klog(action_size_buffer, nullptr, 0), smallest_buffer, largest_buffer);
    for (;;) {
        char* larger = static_cast<char*>(realloc(text->bytes.get(), static_cast<size_t>(size)));
        if (!larger) {
            return ENOMEM;
        }
        (void)text->bytes.release();  // realloc has taken it
        text->bytes.reset(larger);
        text->length = klog(action_read_all, larger, size);
        if (text->length < 0) {
            return errno;
        }
        if (text->length <= size - longest_record) {
            return 0;
        }
        if (size == largest_buffer) {
            return EFBIG;
        }
        size = std::min(size * 2, largest_buffer);
    }
}

}  // namespace

int stream_dmesg_from(tar_handle* t, int (*klog)(int, char*, int)) {
    log_text text;
    if (const int error = read_log(&text, klog)) {
        manifest_note(t, name, error);
    }
    if (text.length > 0) {
        tar_store(t, name, text.bytes.get(), static_cast<size_t>(text.length));
    }
    return t->error != 0 ? 1 : 0;
}

int stream_dmesg(tar_handle* t) {
    return stream_dmesg_from(t, klogctl);
}
