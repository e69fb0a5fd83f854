#include "archive/process_links.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <string_view>

#include "proc/number_list.h"

namespace {

constexpr std::string_view cut_note = "(the list is cut here)\n";
constexpr std::string_view arrow = " -> ";
constexpr size_t longest_name = sizeof "fd/2147483647" - 1;
constexpr size_t escaped_size = 4;

void add(process_links* links, std::string_view part) {
    memcpy(links->text + links->length, part.data(), part.size());
    links->length += part.size();
}

void add_escaped(process_links* links, std::string_view target) {
    for (const char c : target) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte >= ' ' && byte != 0x7f && byte != '\\') {
            links->text[links->length++] = c;
            continue;
        }
        const char escaped[escaped_size] = {'\\', static_cast<char>('0' + (byte >> 6)),
                                            static_cast<char>('0' + (byte >> 3 & 7)),
                                            static_cast<char>('0' + (byte & 7))};
        add(links, {escaped, sizeof escaped});
    }
}

// Adds the line of the link `file` in `dir_fd`, which is `folder` of the process. Returns an errno; E2BIG if
// there is no space for the line.
int add_link(process_links* links, std::string_view folder, int dir_fd, const char* file) {
    const ssize_t length = readlinkat(dir_fd, file, links->target, sizeof links->target);
    if (length < 0) {
        return errno == ENOENT ? 0 : errno;  // a kernel thread has no program; descriptors come and go
    }
    const std::string_view target(links->target, static_cast<size_t>(length));
    const size_t longest_line = longest_name + arrow.size() + escaped_size * target.size() + 1;
    if (sizeof links->text - links->length < longest_line + cut_note.size()) {
        add(links, cut_note);
        return E2BIG;
    }
    add(links, folder);
    add(links, file);
    add(links, arrow);
    add_escaped(links, target);
    add(links, "\n");
    return 0;
}

}  // namespace

int process_links_read(int dir_fd, process_links* links) {
    links->length = 0;
    links->descriptors = -1;
    int error = add_link(links, "", dir_fd, "exe");
    if (const int failed = add_link(links, "", dir_fd, "cwd"); failed != 0) {
        error = failed;
    }
    const unique_dir dir = number_folder(dir_fd, "fd");
    if (!dir) {
        return errno;
    }
    links->descriptors = 0;
    bool is_cut = false;
    while (const dirent* entry = number_next(dir.get())) {
        links->descriptors++;
        if (is_cut) {
            continue;
        }
        const int failed = add_link(links, "fd/", dirfd(dir.get()), entry->d_name);
        is_cut = failed == E2BIG;
        error = failed == 0 || is_cut ? error : failed;
    }
    return error;
}
