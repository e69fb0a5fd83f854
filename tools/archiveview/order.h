// The order of members in the daemon's archives, and what is missing in one.
#pragma once

#include <stddef.h>

#include <bitset>
#include <string>
#include <string_view>
#include <vector>

#include "tools/archiveview/source/member_place.h"

namespace archiveview {

// Follows the members as they stream.
class member_order {
public:
    // Returns the look that a member belongs to: 0 or 1. 0 for other members.
    int add(const member_place& place, std::string_view name);

    bool is_full() const { return is_full_; }
    // True if a member was where none of its kind belongs, or is of no known kind.
    bool is_wrong() const { return !wrong_member_.empty(); }
    const std::string& wrong_member() const { return wrong_member_; }  // the first of these
    // True if the archive has all that every archive of its form has, in the right order. Cores do not count:
    // nothing says how many there are.
    bool has_all() const;
    // What should have come but did not, in words. `is_cut`: the archive ends early. `is_within_member`:
    // within the last one that was added.
    std::vector<std::string> missing(bool is_cut, bool is_within_member) const;

private:
    bool is_missing(size_t step, bool is_cut) const;

    static constexpr size_t step_limit = 32;
    size_t step_ = 0;  // that of the last member
    bool has_begun_ = false;
    std::bitset<step_limit> seen_;
    std::string stamp_;  // of the last look
    bool is_full_ = false;
    std::string wrong_member_;
};

}  // namespace archiveview
