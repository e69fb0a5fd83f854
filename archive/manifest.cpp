#include "archive/manifest.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

#include "archive/member_copy.h"
#include "archive/output.h"
#include "common/monotonic.h"
#include "common/safe_io.h"
#include "common/temp_file.h"
#include "common/time_stamp.h"
#include "common/version.h"

namespace {

constexpr size_t line_capacity = 256;  // a member name has at most 100 bytes

struct text_line {
    char text[line_capacity];
    int length = 0;
};

__attribute__((format(printf, 2, 3))) void append(text_line* line, const char* format, ...) {
    const size_t space = line_capacity - static_cast<size_t>(line->length);
    va_list args;
    va_start(args, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start has initialized it
    const int length = vsnprintf(line->text + line->length, space, format, args);
    va_end(args);
    line->length += std::min(length, static_cast<int>(space) - 1);
}

template <size_t size>
void print_time(char (&text)[size]) {
    const tm now = local_time(time(nullptr));
    text[strftime(text, size - 1, "%Y-%m-%d %H:%M:%S %z", &now)] = '\0';
}

// Lines are lost only as whole buffers, so the list never ends within a line.
void flush_lines(manifest* m) {
    if (m->list_error == 0 && safe_write(m->list.get(), m->buffer, static_cast<unsigned>(m->buffered)) < 0) {
        m->list_error = errno;
    }
    m->listed += m->list_error == 0 ? static_cast<int64_t>(m->buffered) : 0;
    m->buffered = 0;
}

void add_line(manifest* m, const text_line& line) {
    const size_t length = static_cast<size_t>(line.length);
    if (sizeof m->buffer - m->buffered < length) {
        flush_lines(m);
    }
    memcpy(m->buffer + m->buffered, line.text, length);
    m->buffered += length;
}

// A name may come from outside and hold anything.
void copy_name(char (&to)[sizeof manifest::name], const char* name) {
    snprintf(to, sizeof to, "%s", name);
    for (char* c = to; *c; c++) {
        *c = static_cast<unsigned char>(*c) < ' ' ? '?' : *c;
    }
}

void end_member(manifest* m) {
    if (m->name[0] == '\0') {
        return;
    }
    const int64_t now_ns = monotonic_ns();
    const uint64_t took_us = static_cast<uint64_t>(now_ns - m->began_ns) / 1000;
    const uint32_t seconds = static_cast<uint32_t>(took_us / 1000000);
    text_line line;
    append(&line, "%13u %4u.%06u  %s\n", m->size, seconds, static_cast<uint32_t>(took_us) - seconds * 1000000,
           m->name);
    add_line(m, line);
    m->members++;
    m->bytes += m->size;
    m->name[0] = '\0';
    m->began_ns = now_ns;
}

void on_header(tar_watch* watch, const char* name, int size) {
    manifest* m = static_cast<manifest*>(watch);
    end_member(m);
    copy_name(m->name, name);
    m->size = static_cast<uint32_t>(size);
    m->written = 0;
}

void on_data(tar_watch* watch, size_t length) {
    manifest* m = static_cast<manifest*>(watch);
    m->written += static_cast<uint32_t>(length);
    if (m->written >= m->size) {
        end_member(m);
    }
}

text_line head_of(const manifest& m) {
    text_line head;
    append(&head, "zarvo %s\nstarted %s\n%13s %11s  member\n", zarvo_version, m.started, "bytes", "seconds");
    return head;
}

text_line tail_of(const manifest& m) {
    text_line tail;
    if (m.list_error != 0) {
        append(&tail, "the list above is not whole: %s\n", strerror(m.list_error));
    }
    char ended[sizeof m.started];
    print_time(ended);
    append(&tail, "ended %s\nmembers: %u, bytes: %llu, errors: %u\ncomplete\n", ended, m.members,
           static_cast<unsigned long long>(m.bytes), m.errors);
    return tail;
}

}  // namespace

void manifest_begin(manifest* m, tar_handle* t) {
    m->on_header = on_header;
    m->on_data = on_data;
    print_time(m->started);
    m->list = unique_fd(memfd_create("manifest", MFD_CLOEXEC));
    if (!m->list) {  // as on a kernel before 3.17
        m->list = temp_file_unlinked("/tmp/.manifestXXXXXX");
    }
    m->list_error = m->list ? 0 : errno;
    m->began_ns = monotonic_ns();
    t->watch = m;
}

void manifest_note(tar_handle* t, const char* name, int error) {
    manifest* m = static_cast<manifest*>(t->watch);
    if (!m) {
        return;
    }
    char safe_name[sizeof m->name];
    copy_name(safe_name, name);
    text_line line;
    append(&line, "%13s              %s: %s\n", "error", safe_name, strerror(error));
    add_line(m, line);
    m->errors++;
}

void manifest_store(manifest* m, tar_handle* t) {
    manifest_abandon(t);
    end_member(m);
    flush_lines(m);
    const text_line head = head_of(*m);
    const text_line tail = tail_of(*m);
    tar_addfile(t, "manifest.txt", member_size(head.length + m->listed + tail.length));
    tar_write(t, head.text, static_cast<size_t>(head.length));
    lseek(m->list.get(), 0, SEEK_SET);
    const int64_t copied = member_copy(t, m->list.get(), m->listed);
    (void)output_pad(t, member_size(m->listed - copied));
    tar_fakewrite(t, static_cast<size_t>(m->listed));
    tar_write(t, tail.text, static_cast<size_t>(tail.length));
}

void manifest_abandon(tar_handle* t) {
    t->watch = nullptr;
}
