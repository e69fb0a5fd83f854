#include "tools/archiveview/facts/descriptors.h"

#include <utility>

#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

struct descriptor_kind {
    std::string_view prefix;
    unsigned descriptor_counts::*count;
};

// The first that fits counts. What the kernel cannot reach from the root begins with a remark.
constexpr std::string_view socket_prefix = "socket:[";
constexpr std::string_view pipe_prefix = "pipe:[";
constexpr descriptor_kind kinds[] = {
    {"/", &descriptor_counts::file},
    {"(unreachable)", &descriptor_counts::file},
    {socket_prefix, &descriptor_counts::socket},
    {pipe_prefix, &descriptor_counts::pipe},
    {"", &descriptor_counts::other},
};

void count(descriptor_counts* counts, std::string_view target) {
    counts->total++;
    for (const descriptor_kind& kind : kinds) {
        if (target.starts_with(kind.prefix)) {
            (counts->*kind.count)++;
            return;
        }
    }
}

// The number in "PREFIX4711]", or 0.
uint64_t inode_after(std::string_view prefix, std::string_view target) {
    if (!target.starts_with(prefix) || !target.ends_with(']')) {
        return 0;
    }
    target.remove_prefix(prefix.size());
    target.remove_suffix(1);
    return number_of(target).value_or(0);
}

size_t size_in_memory(const descriptor& d) {
    return sizeof d + d.target.size() + sizeof d.inode;
}

}  // namespace

void descriptors_add(descriptor_list* list, int number, std::string_view target, size_t* used_bytes) {
    target = target.substr(0, path_limit);
    count(&list->counts, target);
    descriptor d = {number, std::string(target), 0};
    const size_t size = size_in_memory(d);
    if (list->descriptors.size() >= descriptor_limit || *used_bytes + size > descriptor_bytes_limit) {
        return;
    }
    const uint64_t socket = inode_after(socket_prefix, target);
    d.inode = socket != 0 ? socket : inode_after(pipe_prefix, target);
    if (socket != 0) {
        list->sockets.push_back(socket);
    }
    list->descriptors.push_back(std::move(d));
    *used_bytes += size;
}

void descriptors_forget(descriptor_list* list, size_t* used_bytes) {
    for (const descriptor& d : list->descriptors) {
        *used_bytes -= size_in_memory(d) - sizeof d.inode;
    }
    list->descriptors = {};
}

growth_by_kind descriptors_growth(const descriptor_counts& first, const descriptor_counts& second) {
    const auto grown = [&](unsigned descriptor_counts::*kind) {
        return int64_t{second.*kind} - int64_t{first.*kind};
    };
    return {grown(&descriptor_counts::file), grown(&descriptor_counts::socket),
            grown(&descriptor_counts::pipe), grown(&descriptor_counts::other)};
}

uint64_t descriptor_socket(const descriptor& d) {
    return inode_after(socket_prefix, d.target);
}

}  // namespace archiveview
