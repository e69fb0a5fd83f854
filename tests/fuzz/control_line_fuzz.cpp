// Parses any bytes as a dumper's control line: the result is that of a simple reference parser, and a pipe
// delivers the same line.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "common/unique_fd.h"
#include "dump/control_line.h"
#include "tests/fuzz/require.h"

namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Converts the decimal number at `at` with the C library. Returns 0 if it does not fit into 32 bits, the
// device's int.
int number_at(const std::string& text, size_t at, size_t* end) {
    char* after = nullptr;
    errno = 0;
    long long value = strtoll(text.c_str() + at, &after, 10);
    *end = static_cast<size_t>(after - text.c_str());
    return errno == 0 && value <= INT_MAX && value >= INT_MIN ? static_cast<int>(value) : 0;
}

struct parsed_line {
    int core_length = 0;
    std::vector<pid_t> pids;
};

// Skips blanks and tabs. True if a number follows, which may begin with '-' but not with '+'.
bool has_number(const std::string& text, size_t* at) {
    while (*at < text.size() && (text[*at] == ' ' || text[*at] == '\t')) {
        (*at)++;
    }
    size_t digit = *at + (*at < text.size() && text[*at] == '-');
    return digit < text.size() && is_digit(text[digit]);
}

parsed_line parse_reference(std::string text) {
    parsed_line found;
    text.resize(std::min(text.find('\n'), text.size()));
    size_t at = 8;
    if (text.size() < at || !has_number(text, &at)) {
        return found;
    }
    found.core_length = std::max(0, number_at(text, at, &at));
    at = std::min(at + 21, text.size());
    const auto limit = 1 + std::count(text.begin() + static_cast<std::ptrdiff_t>(at), text.end(), ' ');
    for (auto i = limit; i > 0; i--) {
        while (at < text.size() && !is_digit(text[at])) {
            at++;
        }
        if (at == text.size()) {
            break;
        }
        int pid = number_at(text, at, &at);
        if (pid > 0) {
            found.pids.push_back(pid);
        }
    }
    return found;
}

// Parses a copy of exactly its length, so that the address sanitizer detects a read beyond it.
parsed_line parse(const std::string& text) {
    std::vector<char> exact(text.begin(), text.end());
    control_line line = control_line_parse({exact.data(), exact.size()});
    parsed_line found;
    found.core_length = line.core_length;
    for (pid_t pid; control_line_next_pid(&line, &pid);) {
        found.pids.push_back(pid);
    }
    return found;
}

// Discards the reports of lines that are too long, which would hide the fuzzer's own output.
int read_silently(int fd, control_text* text) {
    static const unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
    static const unique_fd standard_error(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    dup2(null.get(), STDERR_FILENO);
    int result = dump_read_ctl_line(fd, 0, text);
    dup2(standard_error.get(), STDERR_FILENO);
    return result;
}

void check_pipe(const std::string& sent) {
    constexpr size_t fits_into_a_pipe = 4096;
    int ends[2];
    require(pipe2(ends, O_CLOEXEC) == 0);
    unique_fd out(ends[0]);
    unique_fd in(ends[1]);
    size_t length = std::min(sent.size(), fits_into_a_pipe);
    require(write(in.get(), sent.data(), length) == static_cast<ssize_t>(length));
    in.reset();
    control_text text;
    int result = read_silently(out.get(), &text);
    size_t newline = sent.substr(0, length).find('\n');
    require(text.length <= sizeof text.bytes && text.line_length <= text.length);
    require(sent.compare(0, text.length, text.bytes, text.length) == 0);
    if (newline < control_line_limit) {
        require(result == 0 && text.line_length == newline + 1);
    } else {
        require(result == (length < sizeof text.bytes ? ETIMEDOUT : EMSGSIZE));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string sent(reinterpret_cast<const char*>(data), size);
    const parsed_line wanted = parse_reference(sent);
    const parsed_line got = parse(sent);
    require(got.core_length == wanted.core_length);
    require(got.pids == wanted.pids);
    check_pipe(sent);
    return 0;
}
