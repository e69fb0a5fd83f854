#include "tools/dcore/filter.h"

namespace {

enum filter_bit : uint64_t {
    private_anonymous = 1 << 0,
    shared_anonymous = 1 << 1,
    private_file = 1 << 2,
    shared_file = 1 << 3,
    program_heads = 1 << 4,
    private_huge = 1 << 5,
    shared_huge = 1 << 6,
};

// A file mapping that was written to usually holds a few pages of variables. It is included whole, so that a
// debugger does not need the file. A larger one is included as far as it is in memory.
constexpr uint64_t whole_limit = 1 << 20;

core_content file_content(const core_mapping& mapping) {
    return mapping.end - mapping.start <= whole_limit ? core_content::whole : core_content::touched;
}

// True if the mapping has pages of its own.
bool was_written(const core_mapping& mapping) {
    return mapping.has_details ? mapping.anonymous_kb + mapping.swapped_kb > 0 : mapping.writable;
}

core_content private_content(const core_mapping& mapping, uint64_t filter) {
    if (!mapping.is_file) {
        return filter & private_anonymous ? core_content::touched : core_content::none;
    }
    if ((was_written(mapping) && (filter & private_anonymous)) || (filter & private_file)) {
        return filter & private_file ? core_content::whole : file_content(mapping);
    }
    bool may_begin = mapping.offset == 0 && mapping.readable && (filter & program_heads);
    return may_begin ? core_content::head : core_content::none;
}

}  // namespace

core_content filter_choose(const core_mapping& mapping, uint64_t filter) {
    if (mapping.path == "[vdso]" || mapping.path == "[vsyscall]") {
        return core_content::whole;
    }
    if (mapping.is_device) {
        return core_content::left_out;
    }
    if (mapping.do_not_dump) {
        return core_content::none;
    }
    if (mapping.is_huge) {
        return filter & (mapping.shared ? shared_huge : private_huge) ? core_content::touched
                                                                      : core_content::none;
    }
    if (mapping.shared) {
        return filter & (mapping.is_deleted ? shared_anonymous : shared_file) ? core_content::touched
                                                                              : core_content::none;
    }
    return private_content(mapping, filter);
}
