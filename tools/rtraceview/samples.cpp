#include "tools/rtraceview/samples.h"

#include <algorithm>
#include <charconv>
#include <vector>

#include "monitor/rtrace_record.h"
#include "tools/rtraceview/output.h"

namespace {

constexpr size_t head_limit = 4096;
constexpr size_t report_limit = 65536;  // numbers of one record of a program

// The order within a sample; programs come last, in any order.
constexpr int app_rank = 9;
int rank_of(const record& next) {
    switch (next.type) {
        case rtrace_type_group:
            return next.more ? 0 : 3;
        case rtrace_type_smaps:
            return 1;
        case rtrace_type_status:
            return 2;
        case rtrace_type_followed:
        case rtrace_type_smapstot:
            return 4;
        case rtrace_type_filenr:
            return 5;
        case rtrace_type_meminfo:
            return 6;
        case rtrace_type_diskinfo:
            return 7;
        case rtrace_type_pagetypeinfo:
            return 8;
        default:
            return app_rank;
    }
}

bool is_of_a_process(uint32_t type) {
    return type == rtrace_type_smaps || type == rtrace_type_status;
}

std::string_view unit_of(const key_sums::entry& entry) {
    return entry.is_kb ? "KiB" : "";
}

// The next text up to `mark`; false when there is none.
bool take_until(std::string_view* rest, char mark, std::string_view* part) {
    size_t end = rest->find(mark);
    if (end == std::string_view::npos) {
        return false;
    }
    *part = rest->substr(0, end);
    rest->remove_prefix(end + 1);
    return true;
}

bool number_in(std::string_view text, double* number) {
    uint64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    *number = static_cast<double>(value);
    return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool sample_builder::begins_sample(const record& next) const {
    int rank = rank_of(next);
    if (last_rank_ < 0 || rank < last_rank_) {
        return true;
    }
    if (rank > last_rank_) {
        return false;
    }
    if (rank == app_rank) {
        return (seen_apps_ & 1U << next.type) != 0;
    }
    // Another file of the one kind; the pieces of one and processes belong together.
    return !is_of_a_process(next.type) && file_.type == 0;
}

void sample_builder::note_time(const record& next) {
    if (next.time_ms < last_time_ms_ && times_back_++ == 0) {
        first_back_offset_ = next.offset;
    }
    last_time_ms_ = next.time_ms;
    if (!is_date(next.time_ms) && far_times_++ == 0) {
        first_far_offset_ = next.offset;
    }
}

void sample_builder::add(const record& next) {
    if (!next.is_known) {
        return;
    }
    note_time(next);
    if (file_.type != 0 && (next.type != file_.type || (next.more && next.pid != file_.pid))) {
        give_up_file();
    }
    bool is_closing = file_.type != 0 && !next.more;
    if (!is_closing && begins_sample(next)) {
        finish();
        visitor_.begin(next.time_ms, next.offset);
        samples_++;
        seen_apps_ = 0;
        seen_processes_.clear();
    }
    last_rank_ = rank_of(next);
    if (last_rank_ == app_rank) {
        seen_apps_ |= 1U << next.type;
        visit_app(next);
    } else if (next.type == rtrace_type_diskinfo) {
        visit_disks(next);
    } else if (next.type != rtrace_type_group) {
        add_piece(next);
    }
}

void sample_builder::finish() {
    if (file_.type != 0) {
        give_up_file();
    }
    if (last_rank_ >= 0) {
        visitor_.end();
    }
    last_rank_ = -1;
}

void sample_builder::add_piece(const record& next) {
    if (!next.more) {
        // A closing header of nothing is passed over.
        if (file_.type != 0) {
            close_file();
        }
        return;
    }
    if (file_.type == 0) {
        file_.type = next.type;
        file_.pid = next.pid;
        file_.time_ms = next.time_ms;
        file_.head.clear();
        sums_of_[next.type].begin();
    }
    if (file_.head.size() < head_limit) {
        file_.head.append(next.data.substr(0, head_limit - file_.head.size()));
    }
    sums_of_[next.type].add(next.data);
}

void sample_builder::give_up_file() {
    unfinished_++;
    file_.type = 0;
}

void sample_builder::close_file() {
    sums_of_[file_.type].finish();
    switch (file_.type) {
        case rtrace_type_smaps:
        case rtrace_type_status:
            close_process();
            break;
        case rtrace_type_filenr:
            visit_filenr();
            break;
        case rtrace_type_followed:
        case rtrace_type_pagetypeinfo:
            visitor_.text({record_type_name(file_.type), "", "text", ""}, file_.head, file_.time_ms);
            break;
        default:
            visit_sums("");
    }
    file_.type = 0;
}

// A process id may be given to another process while the processes are gone through.
void sample_builder::close_process() {
    uint64_t mark = uint64_t{file_.type} << 32 | static_cast<uint32_t>(file_.pid);
    if (seen_processes_.size() < processes_limit && seen_processes_.insert(mark).second) {
        visit_sums(std::to_string(file_.pid));
    } else {
        repeated_++;
    }
}

void sample_builder::visit_sums(std::string_view subject) {
    const char* source = record_type_name(file_.type);
    for (const key_sums::entry& entry : sums_of_[file_.type].entries()) {
        if (entry.rule == key_rule::text) {
            if (!entry.text.empty() && file_.type == rtrace_type_status) {
                visitor_.text({source, subject, entry.key, ""}, entry.text, file_.time_ms);
            }
        } else if (entry.is_present) {
            visitor_.value({source, subject, entry.key, unit_of(entry)}, static_cast<double>(entry.sum),
                           file_.time_ms);
        }
    }
}

// "ALLOCATED\tFREE\tMAXIMUM\n"
void sample_builder::visit_filenr() {
    constexpr std::string_view keys[] = {"allocated", "free", "maximum"};
    std::string_view rest = file_.head;
    for (std::string_view key : keys) {
        std::string_view part = rest.substr(0, rest.find_first_of("\t\n"));
        double number = 0;
        if (number_in(part, &number)) {
            visitor_.value({"filenr", "", key, ""}, number, file_.time_ms);
        }
        rest.remove_prefix(std::min(rest.size(), part.size() + 1));
    }
}

// Lines of SOURCE, USED, AVAILABLE and MOUNT POINT behind the heading. A mount point is the subject, since
// several mounts may have the same source; of several at one mount point the last is seen.
void sample_builder::visit_disks(const record& next) {
    std::string_view rest = next.data;
    std::string_view line;
    std::map<std::string_view, std::string_view> last_at;
    (void)take_until(&rest, '\n', &line);
    for (std::string_view lines = rest; take_until(&lines, '\n', &line);) {
        last_at[line.substr(line.rfind('\t') + 1)] = line;
    }
    for (auto [mount, text] : last_at) {
        std::string_view source;
        std::string_view used;
        std::string_view available;
        double used_kib = 0;
        double available_kib = 0;
        if (take_until(&text, '\t', &source) && take_until(&text, '\t', &used) &&
            take_until(&text, '\t', &available) && number_in(used, &used_kib) &&
            number_in(available, &available_kib)) {
            source = source.substr(0, source.find_last_not_of(' ') + 1);
            visitor_.text({"diskinfo", mount, "Filesystem", ""}, source, next.time_ms);
            visitor_.value({"diskinfo", mount, "Used", "KiB"}, used_kib, next.time_ms);
            visitor_.value({"diskinfo", mount, "Avail", "KiB"}, available_kib, next.time_ms);
        }
    }
}

void sample_builder::visit_app(const record& next) {
    const char* source = record_type_name(next.type);
    if (next.type == rtrace_type_iostat || next.type == rtrace_type_pidstat) {
        visit_report(next, source);
        return;
    }
    std::string lines;
    lines_of_[next.type].add(next.data, [&lines](std::string_view line) {
        if (!line.empty()) {
            lines.append(line).append("\n");
        }
    });
    if (!lines.empty()) {
        visitor_.text({source, "", "text", ""}, lines, next.time_ms);
    }
}

// Of several reports in one record the last one counts.
void sample_builder::visit_report(const record& next, std::string_view source) {
    std::map<std::string, std::vector<std::pair<std::string, double>>, std::less<>> numbers;
    size_t count = 0;
    report_value keep = [&](std::string_view subject, std::string_view column, double value) {
        if (count >= report_limit) {
            return;
        }
        auto& columns = numbers[std::string(subject)];
        auto known = std::find_if(columns.begin(), columns.end(),
                                  [column](const auto& other) { return other.first == column; });
        if (known != columns.end()) {
            known->second = value;
        } else {
            columns.emplace_back(column, value);
            count++;
        }
    };
    lines_of_[next.type].add(next.data, [&](std::string_view line) {
        next.type == rtrace_type_iostat ? iostat_.add_line(line, keep) : pidstat_.add_line(line, keep);
    });
    for (const auto& [subject, columns] : numbers) {
        for (const auto& [column, value] : columns) {
            std::string_view unit = column.starts_with("%") || subject == "cpu" ? "%" : "";
            visitor_.value({source, subject, column, unit}, value, next.time_ms);
        }
    }
}
