#include "tools/archiveview/facts/trace.h"

#include <algorithm>
#include <unordered_map>

#include "archive/member_trace.h"
#include "tools/archiveview/facts/parse.h"
#include "tools/archiveview/facts/trace_calls.h"
#include "tools/archiveview/facts/trace_errors.h"
#include "tools/archiveview/facts/trace_line.h"
#include "tools/archiveview/facts/trace_polling.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// What is known of a process while the trace is read. The views point into the trace.
struct traced_state {
    traced_process* facts = nullptr;
    bool has_pending = false;
    trace_line pending;
    double entered = 0;
    bool has_returned = false;  // from any call
    std::string_view slowest;
    polling_counter polling;
    uint64_t last_line = 0;  // numbers of lines; those of listings do not count
    uint64_t listed_at = 0;
};

// A step of the clock that is longer than any pause of a trace, or backwards, is a change of the clock.
constexpr double longest_step_seconds = 30;
constexpr double day_seconds = 86400;

// Lines of processes that stopped together are not in the order of their times.
constexpr double largest_disorder_seconds = 1;

// Shorter traces are not judged by their rates: a burst is no loop.
constexpr double least_judged_seconds = 1;

constexpr int continued_lines = 16;  // of a call's text, because names of files may hold newlines

class trace_reader {
public:
    explicit trace_reader(trace_facts* facts) : facts_(facts) {}
    void read(std::string_view text);

private:
    trace_line take_whole_line(std::string_view* text);
    bool begins_line(std::string_view text) const;
    void note_time(double time);
    traced_state* state_of(const trace_line& line);
    void add(const trace_line& line);
    void add_call(const trace_line& line, traced_state* state);
    void add_result(const trace_line& line, traced_state* state);
    void add_transfer(const trace_line& line, int error, traced_process* process);
    void add_listed(std::string_view line);
    void finish();
    void finish_process(traced_state* state) const;

    trace_facts* facts_;
    std::unordered_map<int, traced_state> states_;
    traced_state* listing_ = nullptr;  // the process whose descriptors are being listed
    int listed_left_ = 0;
    uint64_t lines_ = 0;
    double last_time_ = -1;
    double elapsed_ = 0;
};

bool trace_reader::begins_line(std::string_view text) const {
    std::string_view line = text.substr(0, text.find('\n'));
    return facts_->is_timed ? trace_take_time(&line).has_value() : line.empty() || line.starts_with('[');
}

// Takes the next line off the text. The line of a call that does not end goes on in the next lines, unless
// they are lines of their own.
trace_line trace_reader::take_whole_line(std::string_view* text) {
    const std::string_view begin = *text;
    std::string_view whole = take_line(text);
    std::string_view rest = whole;
    if (facts_->is_timed) {
        const auto time = trace_take_time(&rest);
        if (!time) {
            return {};
        }
        note_time(*time);
    }
    const size_t skipped = whole.size() - rest.size();
    trace_line line = trace_read_line(rest);
    for (int i = 0; i < continued_lines && line.kind == trace_line_kind::unfinished; i++) {
        if (text->empty() || begins_line(*text)) {
            break;
        }
        whole = begin.substr(0, whole.size() + 1 + take_line(text).size());
        line = trace_read_line(whole.substr(skipped));
    }
    return line;
}

void trace_reader::note_time(double time) {
    if (last_time_ >= 0) {
        double step = time - last_time_;
        step += step < -day_seconds / 2 ? day_seconds : 0;
        if (step < 0 && step >= -largest_disorder_seconds) {
            return;
        }
        elapsed_ += step > 0 && step <= longest_step_seconds ? step : 0;
    }
    last_time_ = time;
}

traced_state* trace_reader::state_of(const trace_line& line) {
    const auto found = states_.find(line.pid);
    if (found == states_.end() && states_.size() >= process_limit) {
        facts_->left_out++;
        return nullptr;
    }
    traced_state& state = found == states_.end() ? states_[line.pid] : found->second;
    if (!state.facts) {
        state.facts = &facts_->by_pid[line.pid];
        state.facts->pid = line.pid;
    }
    state.facts->name = line.name;
    return &state;
}

// The counts of a name, or null if there are too many names.
template <typename Counts>
Counts* find_counts(std::map<std::string, Counts>* all, std::string_view name) {
    const auto found = all->find(std::string(name));
    if (found != all->end()) {
        return &found->second;
    }
    return all->size() < call_limit ? &(*all)[std::string(name)] : nullptr;
}

void trace_reader::add_call(const trace_line& line, traced_state* state) {
    state->has_pending = true;
    state->pending = line;
    state->entered = elapsed_;
    state->facts->calls++;
    facts_->calls++;
    if (call_counts* counts = find_counts(&state->facts->by_call, line.call)) {
        counts->calls++;
    }
}

void trace_reader::add_transfer(const trace_line& line, int error, traced_process* process) {
    const transfer_direction direction = trace_direction_of(line.call);
    const descriptor_argument argument = trace_descriptor_argument(line.arguments);
    if (direction == transfer_direction::none || argument.number < 0 ||
        (process->descriptors.size() >= descriptor_limit &&
         !process->descriptors.contains(argument.number))) {
        return;
    }
    traced_descriptor& descriptor = process->descriptors[argument.number];
    if (!argument.text.empty()) {
        descriptor.text = argument.text.substr(0, traced_line_limit);
    }
    const uint64_t bytes = error == 0 && line.result > 0 ? static_cast<uint64_t>(line.result) : 0;
    const bool is_read = direction == transfer_direction::read;
    (is_read ? descriptor.reads : descriptor.writes)++;
    (is_read ? descriptor.read_bytes : descriptor.written_bytes) += bytes;
}

void trace_reader::add_result(const trace_line& line, traced_state* state) {
    traced_process* process = state->facts;
    if (!state->has_pending || state->pending.call != line.call) {
        add_call(line, state);
    }
    state->has_pending = false;
    state->has_returned = true;
    call_counts* counts = find_counts(&process->by_call, line.call);
    const int error = trace_error_of(line);
    if (error != 0) {
        process->errors++;
        facts_->errors++;
        if (counts) {
            counts->errors++;
        }
        if (uint64_t* number = find_counts(&process->by_errno, trace_error_name(error))) {
            ++*number;
        }
    }
    if (counts && line.seconds > 0) {
        counts->seconds += line.seconds;
    }
    if (line.seconds > process->slowest_seconds && !trace_is_wait(line.call)) {
        process->slowest_seconds = line.seconds;
        state->slowest = line.text;
    }
    add_transfer(line, error, process);
    state->polling.add(line, error);
}

// A line of a list of descriptors: "3\t/dev/null".
void trace_reader::add_listed(std::string_view line) {
    const size_t tab = line.find('\t');
    const auto number = tab == std::string_view::npos ? std::nullopt : number_of<int>(line.substr(0, tab));
    if (!number || *number < 0) {
        return;
    }
    listed_left_--;
    auto& descriptors = listing_->facts->descriptors;
    if (descriptors.size() < descriptor_limit || descriptors.contains(*number)) {
        std::string& text = descriptors[*number].text;
        if (text.empty()) {
            text = line.substr(tab + 1, traced_line_limit);
        }
    }
}

void trace_reader::add(const trace_line& line) {
    if (line.kind == trace_line_kind::nothing) {
        if (listed_left_ > 0) {
            add_listed(line.text);
        }
        return;
    }
    listed_left_ = 0;
    traced_state* state = state_of(line);
    if (!state) {
        return;
    }
    if (line.kind == trace_line_kind::listing) {
        listing_ = state;
        listed_left_ = line.descriptors;
        state->facts->open_descriptors = line.descriptors;
        state->listed_at = lines_;
        return;
    }
    state->last_line = ++lines_;
    switch (line.kind) {
        case trace_line_kind::call:
            return add_call(line, state);
        case trace_line_kind::result:
            return add_result(line, state);
        case trace_line_kind::signal:
            if (state->facts->signals.size() < signal_limit) {
                state->facts->signals.emplace_back(line.signal);
            }
            return;
        default:
            // The cut end of a trace: a return, if its call is known.
            state->has_pending = false;
    }
}

void trace_reader::finish_process(traced_state* state) const {
    traced_process* process = state->facts;
    const bool is_exiting =
        state->has_pending && (state->pending.call == "exit" || state->pending.call == "exit_group");
    // At the end of the trace, the descriptors of all processes that are still there are listed.
    const bool was_listed_last = state->listed_at > 0 && state->listed_at >= state->last_line;
    process->has_ended = is_exiting || (was_listed_last && state->listed_at < lines_);
    if (state->has_pending && !process->has_ended) {
        process->waits_in = state->pending.call;
        process->waits_in_line = state->pending.text.substr(0, traced_line_limit);
        process->waits_seconds = facts_->is_timed ? elapsed_ - state->entered : -1;
        process->waits_throughout = !state->has_returned;
    }
    process->slowest_line = state->slowest.substr(0, traced_line_limit);
    const double seconds = facts_->is_timed ? std::max(elapsed_, least_judged_seconds) : strace_seconds;
    const polling_counter::verdict verdict = state->polling.judge(seconds);
    process->polling_call = verdict.call;
    process->polling_per_second = verdict.per_second;
}

void trace_reader::finish() {
    for (auto& [pid, state] : states_) {
        finish_process(&state);
    }
    if (facts_->is_timed) {
        facts_->seconds = elapsed_;
    }
}

void trace_reader::read(std::string_view text) {
    while (!text.empty()) {
        add(take_whole_line(&text));
    }
    finish();
}

// The text without its filler, which is lines of blanks after the end of a line. `is_full` is false if the
// trace has ended by itself.
std::string_view without_filler(std::string_view text, bool* is_full) {
    const size_t last = text.find_last_not_of(" \n");
    if (last == std::string_view::npos) {
        *is_full = false;
        return {};
    }
    const size_t filler = text.find("\n ", last);
    *is_full = filler == std::string_view::npos && text.size() >= size_t{strace_budget};
    return filler == std::string_view::npos ? text : text.substr(0, filler + 1);
}

}  // namespace

void trace_parse(trace_facts* facts, std::string_view text) {
    facts->is_present = true;
    text = without_filler(text.substr(0, text_limit), &facts->is_full);
    facts->bytes = text.size();
    std::string_view first = text.substr(std::min(text.find_first_not_of('\n'), text.size()));
    facts->is_timed = trace_take_time(&first).has_value();
    trace_reader(facts).read(text);
}

}  // namespace archiveview
