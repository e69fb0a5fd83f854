#include "dump/control_line.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "common/deadline.h"

namespace {

constexpr size_t skipped_before_length = 8;
constexpr size_t skipped_before_pids = 21;
constexpr int ended_input_pause_ms = 10;
constexpr int ended_input_patience_ms = 50;
constexpr std::string_view digits = "0123456789";

// The number at the beginning of `*text`, which is taken off; false when there is none. One that does not fit
// is taken off as well, and is 0.
bool take_number(std::string_view* text, int* number) {
    *number = 0;
    const char* end = text->data() + text->size();
    auto [behind, error] = std::from_chars(text->data(), end, *number);
    if (error == std::errc::invalid_argument) {
        return false;
    }
    text->remove_prefix(static_cast<size_t>(behind - text->data()));
    return true;
}

void skip(std::string_view* text, size_t count) {
    text->remove_prefix(std::min(count, text->size()));
}

int report_read_error() {
    int error = errno;
    fprintf(stderr, "%s: read error: %s\n", "dump_read_ctl_line", strerror(error));
    return error;
}

int report_full(const control_text& text) {
    fprintf(stderr,
            "%s: Failed to read ctl line. Read length: %zu."
            "Buffer is too small, current buffer size: %zu\n",
            "dump_read_ctl_line", text.length, sizeof text.bytes);
    return EMSGSIZE;
}

// Looks for the newline in what came last.
bool find_line_end(control_text* text, size_t came) {
    size_t end = std::string_view(text->bytes, text->length).find('\n', text->length - came);
    text->line_length = end == std::string_view::npos ? 0 : end + 1;
    return text->line_length > 0;
}

}  // namespace

control_line control_line_parse(std::string_view text) {
    control_line line;
    text = text.substr(0, text.find('\n'));
    skip(&text, skipped_before_length);
    skip(&text, std::min(text.find_first_not_of(" \t"), text.size()));
    if (take_number(&text, &line.core_length)) {
        line.core_length = std::max(line.core_length, 0);
        skip(&text, skipped_before_pids);
        line.pids = text;
        line.pids_left = 1 + static_cast<int>(std::count(text.begin(), text.end(), ' '));
    }
    return line;
}

bool control_line_next_pid(control_line* line, pid_t* pid) {
    while (line->pids_left > 0) {
        line->pids_left--;
        skip(&line->pids, std::min(line->pids.find_first_of(digits), line->pids.size()));
        if (!take_number(&line->pids, pid)) {
            line->pids_left = 0;
        } else if (*pid > 0) {
            return true;
        }
    }
    return false;
}

int dump_read_ctl_line(int fd, control_text* text, int patience_ms) {
    deadline limit(patience_ms);
    bool has_ended = false;
    while (text->length < sizeof text->bytes) {
        pollfd input = {fd, POLLIN, 0};
        int ready = poll(&input, 1, limit.left_ms());
        if (ready == 0) {
            return ETIMEDOUT;
        }
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        ssize_t got = read(fd, text->bytes + text->length, sizeof text->bytes - text->length);
        if (got < 0 && errno != EINTR) {
            return report_read_error();
        }
        if (got > 0) {
            text->length += static_cast<size_t>(got);
            if (find_line_end(text, static_cast<size_t>(got))) {
                return text->line_length <= control_line_limit ? 0 : EMSGSIZE;
            }
        } else if (got == 0) {
            if (!has_ended && limit.left_ms() > ended_input_patience_ms) {
                limit = deadline(ended_input_patience_ms);
            }
            has_ended = true;
            if (limit.is_over()) {
                return ETIMEDOUT;
            }
            poll(nullptr, 0, ended_input_pause_ms);
        }
    }
    return report_full(*text);
}
