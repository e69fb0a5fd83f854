#include "tools/dcore/memory.h"

#include <errno.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>

#include "tools/dcore/proc_text.h"

namespace {

constexpr size_t pieces_at_once = 256;  // of the 1024 that the kernel allows

size_t page_rest(uint64_t address) {
    auto page = static_cast<uint64_t>(getpagesize());
    return static_cast<size_t>(page - address % page);
}

void read_from_file(const target_memory& memory, memory_piece piece, unsigned char* out) {
    while (piece.length > 0) {
        ssize_t got = TEMP_FAILURE_RETRY(
            pread64(memory.file.get(), out, piece.length, static_cast<off64_t>(piece.address)));
        size_t step = static_cast<size_t>(got);
        if (got <= 0) {
            step = std::min(page_rest(piece.address), piece.length);
            memset(out, 0, step);
        }
        out += step;
        piece.address += step;
        piece.length -= step;
    }
}

// Reads up to pieces_at_once pieces with one call. Returns the number of bytes that were read before the
// first byte that could not be read.
size_t read_at_once(target_memory* memory, std::span<const memory_piece> pieces, unsigned char* out) {
    iovec remote[pieces_at_once];
    size_t total = 0;
    for (size_t i = 0; i < pieces.size(); i++) {
        // The process has this program's word size, so its addresses fit.
        auto address = static_cast<uintptr_t>(pieces[i].address);
        remote[i].iov_base = reinterpret_cast<void*>(address);  // NOLINT(performance-no-int-to-ptr)
        remote[i].iov_len = pieces[i].length;
        total += pieces[i].length;
    }
    iovec local = {out, total};
    ssize_t got = process_vm_readv(memory->tid, &local, 1, remote, pieces.size(), 0);
    if (got < 0 && errno != EFAULT) {
        memory->at_once = false;
    }
    return got > 0 ? static_cast<size_t>(got) : 0;
}

}  // namespace

target_memory memory_open(pid_t tid) {
    target_memory memory;
    memory.tid = tid;
    memory.file = proc_open(tid, "mem");
    return memory;
}

void memory_use_file(target_memory* memory) {
    memory->at_once = false;
}

void memory_read(target_memory* memory, std::span<const memory_piece> pieces, unsigned char* out) {
    while (!pieces.empty()) {
        size_t asked = std::min(pieces.size(), pieces_at_once);
        size_t got = memory->at_once ? read_at_once(memory, pieces.first(asked), out) : 0;
        for (; asked > 0 && got >= pieces.front().length; asked--) {
            got -= pieces.front().length;
            out += pieces.front().length;
            pieces = pieces.subspan(1);
        }
        // Reading the file also works for memory that the process itself may not read.
        if (asked > 0) {
            read_from_file(*memory, {pieces.front().address + got, pieces.front().length - got}, out + got);
            out += pieces.front().length;
            pieces = pieces.subspan(1);
        }
    }
}
