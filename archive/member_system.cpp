#include "archive/member_system.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>

#include <iterator>

#include "archive/manifest.h"
#include "archive/mounts_text.h"
#include "archive/system_text.h"
#include "common/heap_text.h"
#include "common/small_file.h"
#include "common/uptime.h"
#include "common/version.h"
#include "net/network_text.h"

namespace {

constexpr size_t text_limit = size_t{256} * 1024;
constexpr size_t errors_limit = 4096;
constexpr size_t file_limit = 4096;  // the kernel's command line may have this many bytes
constexpr char member[] = "system.txt";

struct description {
    tar_handle* tar;
    const char* root;
    int (*statfs_call)(const char* folder, struct statfs* usage);
    heap_text text = {.limit = text_limit};
    heap_text errors = {.limit = errors_limit};
};

// `error` may be 0: nothing has failed.
void note(description* d, const char* what, int error) {
    if (error != 0) {
        heap_text_print(&d->errors, "%s: %s\n", what, strerror(error));
        manifest_note(d->tar, member, error);
    }
}

struct path_text {
    path_text(const description& d, const char* file) { snprintf(text, sizeof text, "%s%s", d.root, file); }
    char text[PATH_MAX];
};

// Appends what a file holds, as a fact if it has a name. A failure is noted.
void add_file(description* d, const char* name, const char* file) {
    char bytes[file_limit];
    const ssize_t length = small_file_read(AT_FDCWD, path_text(*d, file).text, bytes, sizeof bytes);
    if (length < 0) {
        note(d, file, errno);
        return;
    }
    const std::string_view content(bytes, static_cast<size_t>(length));
    if (name) {
        system_text_add_fact(&d->text, name, content);
    } else {
        heap_text_add(&d->text, content);
    }
}

void add_system(description* d) {
    utsname kernel;
    uname(&kernel);  // cannot fail
    system_text_add_kernel(&d->text, kernel);
    add_file(d, "kernel command line", "/proc/cmdline");
    system_text_add_uptime(&d->text, ptime());
    add_file(d, "load", "/proc/loadavg");
    system_text_add_time(&d->text, time(nullptr));
    add_file(d, "clock source", "/sys/devices/system/clocksource/clocksource0/current_clocksource");
    timex clock = {};  // changes nothing
    const int state = adjtimex(&clock);
    if (state >= 0) {
        system_text_add_clock(&d->text, state, clock);
    } else {
        note(d, "clock", errno);
    }
    heap_text_print(&d->text, "zarvo: %s\n", zarvo_version);
    add_file(d, "options", "/proc/self/cmdline");
}

void add_mounts(description* d) {
    constexpr char file[] = "/proc/mounts";
    note(d, file, mounts_text_add(&d->text, path_text(*d, file).text, d->statfs_call, d->tar->fd));
}

// In the order of network_table. Addresses follow the interfaces, without a title.
constexpr const char* network_titles[] = {"interfaces", "addresses", "routes", "neighbours"};

void add_title(description* d, const char* title) {
    heap_text_print(&d->text, "\n[%s]\n", title);
}

void describe(description* d) {
    heap_text_print(&d->text, "[system]\n");
    add_system(d);
    add_title(d, "memory");
    add_file(d, nullptr, "/proc/meminfo");
    add_title(d, "file systems");
    add_mounts(d);
    for (unsigned i = 0; i < std::size(network_titles); i++) {
        const auto table = static_cast<network_table>(i);
        if (table != network_table::addresses) {
            add_title(d, network_titles[i]);
        }
        note(d, network_titles[i], network_text_add(&d->text, table));
    }
    if (!d->errors.view().empty()) {
        add_title(d, "errors");
        heap_text_end(&d->errors);
        heap_text_add(&d->text, d->errors.view());
    }
    heap_text_end(&d->text);
}

}  // namespace

int stream_system_from(tar_handle* t, const char* root, int (*statfs_call)(const char*, struct statfs*)) {
    description d = {.tar = t, .root = root, .statfs_call = statfs_call};
    describe(&d);
    if (d.text.error != 0) {
        manifest_note(t, member, d.text.error);
    }
    if (const std::string_view text = d.text.view(); !text.empty()) {
        tar_store(t, member, text.data(), text.size());
    }
    return t->error != 0 ? 1 : 0;
}

int stream_system(tar_handle* t) {
    return stream_system_from(t, "", nullptr);
}
