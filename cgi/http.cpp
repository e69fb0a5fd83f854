#include "cgi/http.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "common/safe_io.h"
#include "common/unique_fd.h"

namespace {

#define HTTP_NEVER_CACHED "Cache-Control: no-cache\r\nExpires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"

constexpr char download_format[] =
    "HTTP/1.0 200 OK\r\n" HTTP_NEVER_CACHED
    "Content-Type: %s\r\nContent-Disposition: attachment; filename=\"%s\"\r\n\r\n";
constexpr char page_format[] =
    "HTTP/1.0 %s\r\n" HTTP_NEVER_CACHED
    "Content-Type: text/html\r\n\r\n<HTML><HEAD></HEAD>\r\n<BODY>\r\n%s\r\n</BODY></HTML>\r\n\r\n";

// Inserts two texts into a format and writes the result. Returns false if either fails.
bool write_formatted(int fd, const char* format, const char* first, const char* second) {
    char* formatted = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int length = asprintf(&formatted, format, first, second);
#pragma GCC diagnostic pop
    if (length < 0) {
        return false;
    }
    unique_malloc<char> text(formatted);
    return safe_write(fd, text.get(), static_cast<unsigned>(length)) >= 0;
}

// Replaces the characters that would end the quoted name or the header.
void make_quotable(char* name) {
    for (; *name; name++) {
        unsigned char c = static_cast<unsigned char>(*name);
        if (c < ' ' || c == 0x7f || c == '"' || c == '\\') {
            *name = '_';
        }
    }
}

}  // namespace

void http_write_fixed(int fd, std::string_view answer) {
    (void)safe_write(fd, answer.data(), static_cast<unsigned>(answer.size()));
}

int stream_http_header(int fd, const char* content_type, const char* filename) {
    unique_malloc<char> quotable(strdup(filename));
    if (!quotable) {
        return 1;
    }
    make_quotable(quotable.get());
    return write_formatted(fd, download_format, content_type, quotable.get()) ? 0 : 1;
}

void stream_http_message(int fd, const char* status, const char* message) {
    (void)write_formatted(fd, page_format, status, message);
}
