#include "tools/dcore/proc_text.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "common/proc_path.h"
#include "common/small_file.h"

namespace {

constexpr std::string_view blanks = " \t";

void skip_blanks(std::string_view* text) {
    text->remove_prefix(std::min(text->find_first_not_of(blanks), text->size()));
}

bool take_digits(std::string_view* text, int base, uint64_t* value) {
    auto [rest, error] = std::from_chars(text->data(), text->data() + text->size(), *value, base);
    if (error != std::errc()) {
        return false;
    }
    text->remove_prefix(static_cast<size_t>(rest - text->data()));
    skip_blanks(text);
    return true;
}

}  // namespace

unique_fd proc_open(pid_t pid, const char* name) {
    return unique_fd(open(proc_path(pid, name).text, O_RDONLY | O_CLOEXEC));
}

std::string proc_text(pid_t pid, const char* name, size_t limit) {
    std::string text(limit, '\0');
    const ssize_t length = small_file_read(AT_FDCWD, proc_path(pid, name).text, text.data(), limit);
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

bool line_reader::fill() {
    if (begin_ > 0) {
        memmove(buffer_, buffer_ + begin_, end_ - begin_);
        end_ -= begin_;
        begin_ = 0;
    }
    ssize_t got = TEMP_FAILURE_RETRY(read(fd_, buffer_ + end_, sizeof buffer_ - end_));
    end_ += got > 0 ? static_cast<size_t>(got) : 0;
    return got > 0;
}

bool line_reader::skip_rest_of_line() {
    for (;;) {
        if (const void* newline = memchr(buffer_ + begin_, '\n', end_ - begin_)) {
            begin_ = static_cast<size_t>(static_cast<const char*>(newline) - buffer_) + 1;
            is_cut_ = false;
            return true;
        }
        begin_ = end_ = 0;
        if (!fill()) {
            return false;
        }
    }
}

bool line_reader::next(std::string_view* line) {
    if (is_cut_ && !skip_rest_of_line()) {
        return false;
    }
    size_t searched = 0;
    for (;;) {
        const char* start = buffer_ + begin_;
        size_t have = end_ - begin_;
        if (const void* newline = memchr(start + searched, '\n', have - searched)) {
            *line = {start, static_cast<size_t>(static_cast<const char*>(newline) - start)};
            begin_ += line->size() + 1;
            return true;
        }
        searched = have;
        is_cut_ = have == sizeof buffer_;
        if (is_cut_ || !fill()) {
            *line = {buffer_ + begin_, have};
            begin_ = end_;
            return have > 0;
        }
    }
}

bool take_number(std::string_view* text, uint64_t* value) {
    return take_digits(text, 10, value);
}

bool take_hex(std::string_view* text, uint64_t* value) {
    return take_digits(text, 16, value);
}

std::string_view take_word(std::string_view* text) {
    std::string_view word = text->substr(0, text->find_first_of(blanks));
    text->remove_prefix(word.size());
    skip_blanks(text);
    return word;
}

bool take_prefix(std::string_view* text, std::string_view prefix) {
    if (!text->starts_with(prefix)) {
        return false;
    }
    text->remove_prefix(prefix.size());
    skip_blanks(text);
    return true;
}
