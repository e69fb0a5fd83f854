// The report of the device's monitor: blocks about processes with many descriptors or children.
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/processes.h"

namespace archiveview {

namespace {

constexpr size_t recent_rounds = 4;  // the lines after them are averages

// Takes "PREFIXNUMBER" off the line. Nothing, and the line unchanged, if its next word is not that.
std::optional<int> take_number_after(std::string_view prefix, std::string_view* line) {
    std::string_view rest = *line;
    std::string_view word = take_word(&rest);
    if (!word.starts_with(prefix)) {
        return std::nullopt;
    }
    word.remove_prefix(prefix.size());
    if (word.ends_with(':')) {
        word.remove_suffix(1);
    }
    const auto number = number_of<int>(word);
    *line = number ? rest : *line;
    return number;
}

// Rounds before the process's first one have zeros.
void drop_rounds_before_start(monitor_report* report) {
    while (!report->descriptors.empty() && report->descriptors.back() == 0) {
        report->descriptors.pop_back();
        report->sockets.pop_back();
        report->pipes.pop_back();
    }
}

class report_reader {
public:
    explicit report_reader(process_list* list) : list_(list) {}

    void add(std::string_view line) {
        const std::string_view kind = take_word(&line);
        if (kind == "fdstats") {
            begin_descriptors(line);
        } else if (kind == "forkstats") {
            add_children(line);
        } else {
            add_round(line);
        }
    }
    void end_block() {
        if (report_) {
            drop_rounds_before_start(report_);
        }
        report_ = nullptr;
    }

private:
    // Takes "for pid=NUMBER score=NUMBER" off the line. Returns null if it is not there.
    monitor_report* take_process(std::string_view* line, int* score) {
        const bool is_header = take_word(line) == "for";
        const auto pid = take_number_after("pid=", line);
        const auto found = take_number_after("score=", line);
        process_facts* process = is_header && pid && found ? list_->get(*pid) : nullptr;
        *score = found.value_or(0);
        return process ? &process->monitor : nullptr;
    }
    void begin_descriptors(std::string_view line) {
        end_block();
        int score;
        report_ = take_process(&line, &score);
        if (report_) {
            *report_ = {score, report_->fork_score, report_->children, {}, {}, {}};
        }
    }
    void add_children(std::string_view line) {
        end_block();
        int score;
        if (monitor_report* report = take_process(&line, &score)) {
            report->fork_score = score;
            report->children = take_number_after("nr_childs=", &line).value_or(0);
        }
    }
    void add_round(std::string_view line) {
        const auto descriptors = take_number_after("nr_fd=", &line);
        const auto sockets = take_number_after("nr_sock=", &line);
        const auto pipes = take_number_after("nr_pipe=", &line);
        if (report_ && pipes && sockets && descriptors && report_->descriptors.size() < recent_rounds) {
            report_->descriptors.push_back(*descriptors);
            report_->sockets.push_back(*sockets);
            report_->pipes.push_back(*pipes);
        }
    }

    process_list* list_;
    monitor_report* report_ = nullptr;  // of the block that is being read
};

}  // namespace

void processes_add_monitor(process_list* list, std::string_view text) {
    report_reader reader(list);
    while (!text.empty()) {
        reader.add(take_line(&text));
    }
    reader.end_block();
}

}  // namespace archiveview
