#include "tools/dcore/control.h"

#include <errno.h>
#include <unistd.h>

namespace {

constexpr std::string_view before_length = "length: ";
constexpr std::string_view after_length = " bytes; others in it:";
static_assert(before_length.size() == 8 && after_length.size() == 21);

}  // namespace

std::string control_line(uint64_t length) {
    std::string line(before_length);
    line += std::to_string(length);
    line += after_length;
    line += '\n';
    return line;
}

std::string control_remark(int pid, std::string_view text) {
    std::string line = "dcore: " + std::to_string(pid) + ": ";
    line += text;
    line += '\n';
    return line;
}

void control_write(int fd, std::string_view text) {
    while (!text.empty()) {
        ssize_t wrote = write(fd, text.data(), text.size());
        if (wrote < 0 && errno != EINTR) {
            return;
        }
        text.remove_prefix(wrote < 0 ? 0 : static_cast<size_t>(wrote));
    }
}
