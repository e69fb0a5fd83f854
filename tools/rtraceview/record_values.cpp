#include "tools/rtraceview/record_values.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>
#include <vector>

#include "monitor/rtrace_record.h"

namespace {

constexpr size_t head_limit = 4096;
constexpr size_t report_limit = 65536;  // numbers in one record of a program

std::string_view unit_of(const key_sums::entry& entry) {
    return entry.is_kb ? "KiB" : "";
}

// Takes the text before `mark` from the front of `*rest`. Returns false if there is no mark.
bool take_until(std::string_view* rest, char mark, std::string_view* part) {
    size_t end = rest->find(mark);
    if (end == std::string_view::npos) {
        return false;
    }
    *part = rest->substr(0, end);
    rest->remove_prefix(end + 1);
    return true;
}

bool parse_number(std::string_view text, double* number) {
    uint64_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return false;
    }
    *number = static_cast<double>(value);
    return true;
}

// Numbers by subject, and by column in the order of the report.
class report_numbers {
public:
    // A later value replaces an earlier one.
    void set(std::string_view subject, std::string_view column, double value) {
        if (count_ >= report_limit) {
            return;
        }
        auto& columns = numbers_[std::string(subject)];
        auto known = std::find_if(columns.begin(), columns.end(),
                                  [column](const auto& other) { return other.first == column; });
        if (known != columns.end()) {
            known->second = value;
        } else {
            columns.emplace_back(column, value);
            count_++;
        }
    }
    const auto& by_subject() const { return numbers_; }

private:
    std::map<std::string, std::vector<std::pair<std::string, double>>, std::less<>> numbers_;
    size_t count_ = 0;
};

}  // namespace

void record_values::begin_file(const record& first) {
    type_ = first.type;
    pid_ = first.pid;
    time_ms_ = first.time_ms;
    head_.clear();
    sums_of_[type_].begin();
}

void record_values::add_piece(std::string_view data) {
    if (head_.size() < head_limit) {
        head_.append(data.substr(0, head_limit - head_.size()));
    }
    sums_of_[type_].add(data);
}

void record_values::end_file() {
    sums_of_[type_].finish();
    switch (type_) {
        case rtrace_type_smaps:
        case rtrace_type_status:
            visit_sums(std::to_string(pid_));
            break;
        case rtrace_type_filenr:
            visit_filenr();
            break;
        case rtrace_type_followed:
        case rtrace_type_pagetypeinfo:
            visitor_->text({record_type_name(type_), "", "text", ""}, head_, time_ms_);
            break;
        default:
            visit_sums("");
    }
}

void record_values::visit_sums(std::string_view subject) {
    const char* source = record_type_name(type_);
    for (const key_sums::entry& entry : sums_of_[type_].entries()) {
        if (entry.rule == key_rule::text) {
            if (!entry.text.empty() && type_ == rtrace_type_status) {
                visitor_->text({source, subject, entry.key, ""}, entry.text, time_ms_);
            }
        } else if (entry.is_present) {
            visitor_->value({source, subject, entry.key, unit_of(entry)}, static_cast<double>(entry.sum),
                            time_ms_);
        }
    }
}

// "ALLOCATED\tFREE\tMAXIMUM\n"
void record_values::visit_filenr() {
    constexpr std::string_view keys[] = {"allocated", "free", "maximum"};
    std::string_view rest = head_;
    for (std::string_view key : keys) {
        std::string_view part = rest.substr(0, rest.find_first_of("\t\n"));
        double number = 0;
        if (parse_number(part, &number)) {
            visitor_->value({"filenr", "", key, ""}, number, time_ms_);
        }
        rest.remove_prefix(std::min(rest.size(), part.size() + 1));
    }
}

// The data is a heading, then lines of SOURCE, USED, AVAILABLE and MOUNT POINT. Several mounts may have the
// same source, so the mount point is the subject. Of several mounts at one point, the last hides the others.
void record_values::add_disks(const record& disks) {
    std::string_view rest = disks.data;
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
            take_until(&text, '\t', &available) && parse_number(used, &used_kib) &&
            parse_number(available, &available_kib)) {
            source = source.substr(0, source.find_last_not_of(' ') + 1);
            visitor_->text({"diskinfo", mount, "Filesystem", ""}, source, disks.time_ms);
            visitor_->value({"diskinfo", mount, "Used", "KiB"}, used_kib, disks.time_ms);
            visitor_->value({"diskinfo", mount, "Avail", "KiB"}, available_kib, disks.time_ms);
        }
    }
}

void record_values::add_app(const record& output) {
    const char* source = record_type_name(output.type);
    if (output.type == rtrace_type_iostat || output.type == rtrace_type_pidstat) {
        visit_report(output, source);
        return;
    }
    std::string lines;
    lines_of_[output.type].add(output.data, [&lines](std::string_view line) {
        if (!line.empty()) {
            lines.append(line).append("\n");
        }
    });
    if (!lines.empty()) {
        visitor_->text({source, "", "text", ""}, lines, output.time_ms);
    }
}

// If one record has several reports, the last one counts.
void record_values::visit_report(const record& output, std::string_view source) {
    report_numbers numbers;
    report_value keep = [&numbers](std::string_view subject, std::string_view column, double value) {
        numbers.set(subject, column, value);
    };
    lines_of_[output.type].add(output.data, [&](std::string_view line) {
        output.type == rtrace_type_iostat ? iostat_.add_line(line, keep) : pidstat_.add_line(line, keep);
    });
    for (const auto& [subject, columns] : numbers.by_subject()) {
        for (const auto& [column, value] : columns) {
            std::string_view unit = column.starts_with("%") || subject == "cpu" ? "%" : "";
            visitor_->value({source, subject, column, unit}, value, output.time_ms);
        }
    }
}
