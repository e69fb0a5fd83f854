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

constexpr std::string_view digits = "0123456789";

void skip(std::string_view* text, size_t count) {
    text->remove_prefix(std::min(count, text->size()));
}

// Removes the number at the beginning of `*text`. A number that does not fit is removed as well and gives 0.
// Returns false if there is no number.
bool remove_number(std::string_view* text, int* number) {
    *number = 0;
    const char* end = text->data() + text->size();
    auto [after, error] = std::from_chars(text->data(), end, *number);
    if (error == std::errc::invalid_argument) {
        return false;
    }
    text->remove_prefix(static_cast<size_t>(after - text->data()));
    return true;
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

// Appends `count` bytes that were read into the buffer. Returns true if they complete the line.
bool append(control_text* text, size_t count) {
    const size_t old_length = text->length;
    text->length += count;
    const size_t newline = std::string_view(text->bytes, text->length).find('\n', old_length);
    text->line_length = newline == std::string_view::npos ? 0 : newline + 1;
    return text->line_length > 0;
}

}  // namespace

control_line control_line_parse(std::string_view text) {
    control_line line;
    text = text.substr(0, text.find('\n'));
    skip(&text, control_line_head_size);
    skip(&text, std::min(text.find_first_not_of(" \t"), text.size()));
    if (remove_number(&text, &line.core_length)) {
        line.core_length = std::max(line.core_length, 0);
        skip(&text, control_line_gap_size);
        line.pids = text;
        line.pids_left = 1 + static_cast<int>(std::count(text.begin(), text.end(), ' '));
    }
    return line;
}

bool control_line_next_pid(control_line* line, pid_t* pid) {
    while (line->pids_left > 0) {
        line->pids_left--;
        skip(&line->pids, std::min(line->pids.find_first_of(digits), line->pids.size()));
        pid_t number;
        if (!remove_number(&line->pids, &number)) {
            line->pids_left = 0;
        } else if (number > 0) {
            *pid = number;
            return true;
        }
    }
    return false;
}

int dump_read_ctl_line(int fd, int timeout_ms, control_text* text) {
    deadline limit(timeout_ms);
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
        ssize_t count = read(fd, text->bytes + text->length, sizeof text->bytes - text->length);
        if (count < 0 && errno != EINTR) {
            return report_read_error();
        }
        if (count > 0 && append(text, static_cast<size_t>(count))) {
            return text->line_length <= control_line_limit ? 0 : EMSGSIZE;
        }
        if (count == 0) {
            if (!has_ended && limit.left_ms() > control_line_eof_timeout_ms) {
                limit = deadline(control_line_eof_timeout_ms);
            }
            has_ended = true;
            if (limit.is_over()) {
                return ETIMEDOUT;
            }
            poll(nullptr, 0, control_line_eof_pause_ms);
        }
    }
    return report_full(*text);
}
