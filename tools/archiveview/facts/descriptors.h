// Descriptors of a process: what they refer to, counted by kinds.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace archiveview {

struct descriptor {
    int number = -1;
    std::string target;  // "socket:[4711]", "/var/log/messages (deleted)"
    uint64_t inode = 0;  // of sockets and pipes
};

struct descriptor_counts {
    unsigned total = 0, file = 0, socket = 0, pipe = 0, other = 0;
};

struct growth_by_kind {
    int64_t file = 0, socket = 0, pipe = 0, other = 0;
};

struct descriptor_list {
    bool is_present = false;
    bool is_cut = false;  // the device left some out
    std::vector<descriptor> descriptors;
    std::vector<uint64_t> sockets;  // their inodes
    descriptor_counts counts;       // more than the descriptors if those were too many for memory
};

// Adds a descriptor. If the list is too long or `*used_bytes`, the memory of all lists, too large, it is only
// counted.
void descriptors_add(descriptor_list* list, int number, std::string_view target, size_t* used_bytes);

// Frees the descriptors of a list. What else it says stays.
void descriptors_forget(descriptor_list* list, size_t* used_bytes);

growth_by_kind descriptors_growth(const descriptor_counts& first, const descriptor_counts& second);

// The inode of a socket, or 0 if it is none.
uint64_t descriptor_socket(const descriptor& d);

}  // namespace archiveview
