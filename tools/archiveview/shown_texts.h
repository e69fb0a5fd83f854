// Small members, kept as text for the page; and the names of those that were not looked at.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/facts/archive_summary.h"

namespace archiveview {

class shown_texts {
public:
    // `text` may be only the first bytes of a member of `size`. `is_parsed`: its facts are known, so it was
    // looked at even if it is not shown.
    void add(std::string_view name, std::string_view text, uint64_t size, bool is_parsed);
    // Notes that a member was not looked at.
    void skip(std::string_view name, std::string_view reason);
    void move_to(archive_summary* summary);

private:
    std::vector<named_text> texts_, skipped_;
    size_t bytes_ = 0, more_skipped_ = 0;
};

}  // namespace archiveview
