#include "archive/tar.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <iterator>

#include "archive/output.h"

namespace {

constexpr size_t block_size = 512;
constexpr size_t largest_packed = 14 * block_size;  // of tar_store; a multiple of the block size

struct ustar_header {
    char name[100];
    char mode[8];
    char uid[8];
    char gid[8];
    char size[12];
    char mtime[12];
    char chksum[8];
    char typeflag;
    char linkname[100];
    char magic[6];
    char version[2];
    char uname[32];
    char gname[32];
    char devmajor[8];
    char devminor[8];
    char prefix[155];
    char pad[12];
};
static_assert(sizeof(ustar_header) == block_size);

void set_name(ustar_header* header, const tar_handle* t, const char* name) {
    const size_t capacity = sizeof header->name;
    const size_t prefix_length = std::min<size_t>(t->prefix_len, capacity);
    if (prefix_length > 0) {
        memcpy(header->name, t->prefix, prefix_length);
    }
    memcpy(header->name + prefix_length, name, strnlen(name, capacity - prefix_length));
}

// The checksum is the sum of all bytes with blanks in its own field: six digits, a NUL and a blank.
void set_checksum(ustar_header* header) {
    memset(header->chksum, ' ', sizeof header->chksum);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(header);
    unsigned sum = 0;
    for (size_t i = 0; i < block_size; i++) {
        sum += bytes[i];
    }
    snprintf(header->chksum, sizeof header->chksum, "%6.6o", sum);
}

size_t padding_after(size_t length) {
    return -length % block_size;
}

void pad_to_block(tar_handle* t) {
    const size_t padding = padding_after(t->member_bytes);
    if (padding != 0) {
        const char zeros[block_size] = {};
        (void)output_write(t, zeros, padding);
    }
}

void set_header(ustar_header* header, const tar_handle* t, const char* name, int size) {
    set_name(header, t, name);
    memcpy(header->mode, "0000644", 8);
    memcpy(header->uid, "0000100", 8);
    memcpy(header->gid, "0000100", 8);
    snprintf(header->size, sizeof header->size, "%11.11lo",
             static_cast<unsigned long>(static_cast<uint32_t>(size)));
    snprintf(header->mtime, sizeof header->mtime, "%11.11llo",
             static_cast<unsigned long long>(time(nullptr)));
    header->typeflag = '0';
    memcpy(header->magic, "ustar", 6);
    memset(header->version, ' ', sizeof header->version);
    memcpy(header->uname, "admin", 5);
    memcpy(header->gname, "admin", 5);
    set_checksum(header);
}

// Pads the previous member, then writes a header and `len` bytes of data with their padding.
void put(tar_handle* t, const char* name, int size, const void* data, size_t len) {
    struct {
        ustar_header header;
        char data[largest_packed];
    } member;
    const size_t padding = padding_after(len);
    member.header = {};
    set_header(&member.header, t, name, size);
    memcpy(member.data, data, len);
    memset(member.data + len, 0, padding);
    pad_to_block(t);
    (void)output_write(t, &member, sizeof member.header + len + padding);
    t->member_bytes = 0;
    if (t->watch) {
        t->watch->on_header(t->watch, name, size);
    }
}

}  // namespace

tar_handle* tar_new(int fd, const char* prefix) {
    tar_handle* t = static_cast<tar_handle*>(calloc(1, sizeof(tar_handle)));
    if (!t) {
        return nullptr;
    }
    t->fd = fd;
    if (prefix && prefix[0]) {
        t->prefix = strdup(prefix);
        if (!t->prefix) {
            free(t);
            return nullptr;
        }
        t->prefix_len = static_cast<uint32_t>(strlen(prefix));
    }
    return t;
}

void tar_addfile(tar_handle* t, const char* name, int size) {
    put(t, name, size, "", 0);
}

void tar_store(tar_handle* t, const char* name, const void* data, size_t len) {
    if (len > largest_packed) {
        tar_addfile(t, name, static_cast<int>(len));
        tar_write(t, data, len);
        return;
    }
    put(t, name, static_cast<int>(len), data, len);
    tar_fakewrite(t, len);
    t->member_bytes = 0;  // it has its padding
}

void tar_write(tar_handle* t, const void* buf, size_t len) {
    (void)output_write(t, buf, len);
    tar_fakewrite(t, len);
}

void tar_fakewrite(tar_handle* t, size_t len) {
    t->member_bytes += static_cast<uint32_t>(len);
    if (t->watch) {
        t->watch->on_data(t->watch, len);
    }
}

int tar_close(tar_handle* t) {
    pad_to_block(t);
    const int error = t->error;
    tar_abandon(t);
    return error;
}

void tar_abandon(tar_handle* t) {
    free(t->prefix);
    free(t);
}
