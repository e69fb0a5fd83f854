#include "common/give_back.h"

#include <link.h>
#include <malloc.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// With text relocations, pages in memory differ from those of the file and cannot be dropped.
bool has_text_relocations(const dl_phdr_info* info) {
    for (int i = 0; i < info->dlpi_phnum; i++) {
        if (info->dlpi_phdr[i].p_type != PT_DYNAMIC) {
            continue;
        }
        const ElfW(Addr) at = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
        const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(at);  // NOLINT(performance-no-int-to-ptr)
        for (; entry->d_tag != DT_NULL; entry++) {
            if (entry->d_tag == DT_TEXTREL ||
                (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_TEXTREL) != 0)) {
                return true;
            }
        }
    }
    return false;
}

int drop_text(dl_phdr_info* info, size_t /*size*/, void* /*unused*/) {
    if (has_text_relocations(info)) {
        return 0;
    }
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& part = info->dlpi_phdr[i];
        if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0 && (part.p_flags & PF_W) == 0) {
            const uintptr_t begin = (info->dlpi_addr + part.p_vaddr) & ~(page - 1);
            const uintptr_t end = info->dlpi_addr + part.p_vaddr + part.p_filesz;
            // NOLINTNEXTLINE(performance-no-int-to-ptr)
            (void)madvise(reinterpret_cast<void*>(begin), end - begin, MADV_DONTNEED);
        }
    }
    return 0;
}

}  // namespace

void give_memory_back() {
    (void)malloc_trim(0);
    (void)dl_iterate_phdr(drop_text, nullptr);
}
