#include "archive/process_links.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "proc/number_list.h"

namespace {

constexpr char cut_note[] = "(the list is cut here)\n";
constexpr size_t longest_name = sizeof "fd/ -> " + NAME_MAX;
constexpr size_t escaped_size = sizeof "\\ooo" - 1;

// Adds the line of the link `file` in `dir_fd`, which is `folder` of the process. Returns false if it does
// not fit; the list then ends.
bool add_link(process_links* links, const char* folder, int dir_fd, const char* file) {
    const ssize_t length = readlinkat(dir_fd, file, links->target, sizeof links->target);
    if (length < 0) {
        links->error = errno == ENOENT ? links->error : errno;  // a kernel thread has no program
        return true;
    }
    char* to = links->text + links->length;
    const size_t longest_line = longest_name + escaped_size * static_cast<size_t>(length) + 1;
    const bool fits = links->length + longest_line + sizeof cut_note <= sizeof links->text;
    if (!fits) {
        to = stpcpy(to, cut_note);
    } else {
        to += snprintf(to, longest_name, "%s%s -> ", folder, file);
        for (ssize_t i = 0; i < length; i++) {
            const unsigned char byte = static_cast<unsigned char>(links->target[i]);
            if (byte >= ' ' && byte != 0x7f && byte != '\\') {
                *to++ = links->target[i];
            } else {
                to += snprintf(to, escaped_size + 1, "\\%03o", byte);
            }
        }
        *to++ = '\n';
    }
    links->length = static_cast<size_t>(to - links->text);
    return fits;
}

}  // namespace

void process_links_read(int dir_fd, process_links* links) {
    links->length = 0;
    links->error = 0;
    links->descriptors = -1;
    bool fits = add_link(links, "", dir_fd, "exe") && add_link(links, "", dir_fd, "cwd");
    const unique_dir dir = number_folder(dir_fd, "fd");
    if (!dir) {
        links->error = errno;
        return;
    }
    links->descriptors = 0;
    while (const dirent* entry = number_next(dir.get())) {
        links->descriptors++;
        fits = fits && add_link(links, "fd/", dirfd(dir.get()), entry->d_name);
    }
}
