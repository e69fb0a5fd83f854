#include "tools/archiveview/facts/capture.h"

#include <algorithm>
#include <functional>
#include <unordered_map>

#include "tools/archiveview/facts/capture_fragments.h"
#include "tools/archiveview/facts/capture_frame.h"
#include "tools/archiveview/facts/capture_questions.h"
#include "tools/archiveview/facts/capture_records.h"
#include "tools/archiveview/facts/capture_tcp.h"
#include "tools/archiveview/limits.h"

namespace archiveview {

namespace {

// How long after a frame another interface may show it. A segment that is sent again is a new packet, with a
// new number; without numbers only the time tells, and the other view follows at once.
constexpr double longest_view_seconds = 0.15;
constexpr double longest_view_without_id_seconds = 0.02;

// The frames of the last time, by what all views of a frame share.
class view_table {
public:
    // Whether the frame is another view of one before.
    bool is_known(const frame_facts& frame, double seconds) {
        if (frame.view == 0) {
            return false;
        }
        const auto [found, is_new] = seen_.try_emplace(frame.view, seconds);
        const double longest = frame.has_id ? longest_view_seconds : longest_view_without_id_seconds;
        const bool is_view = !is_new && seconds - found->second <= longest;
        found->second = seconds;
        return is_view;
    }

private:
    std::unordered_map<uint64_t, double> seen_;
};

class capture_reader {
public:
    explicit capture_reader(capture_facts* facts) : facts_(facts) {}
    void read(std::string_view bytes);

private:
    static std::string key_of(const frame_facts& frame);
    size_t find(const frame_facts& frame);
    size_t add_conversation(const frame_facts& frame, const std::string& key);
    void add(const capture_record& record);
    void judge(const frame_facts& frame, size_t index, double seconds);
    void add_refusal(const frame_ends& ends);
    void finish();

    static constexpr size_t none = static_cast<size_t>(-1);
    capture_facts* facts_;
    fragment_table fragments_;
    view_table views_;
    question_list questions_;
    std::unordered_map<std::string, size_t> indexes_;  // of conversations, the last of each pair of ends
    std::unordered_map<size_t, tcp_judge> tcp_;        // by index
    int64_t first_us_ = 0;
};

std::string capture_reader::key_of(const frame_facts& frame) {
    const auto [less, more] = std::minmax(frame.ends.a, frame.ends.b);
    return frame.protocol + " " + less + " " + more;
}

size_t capture_reader::add_conversation(const frame_facts& frame, const std::string& key) {
    if (facts_->conversations.size() >= conversation_limit) {
        return none;
    }
    conversation added;
    added.protocol = frame.protocol;
    added.a = frame.ends.a;
    added.b = frame.ends.b;
    facts_->conversations.push_back(std::move(added));
    return indexes_[key] = facts_->conversations.size() - 1;
}

// The conversation of a frame, which is added if it is new.
size_t capture_reader::find(const frame_facts& frame) {
    const std::string key = key_of(frame);
    const auto found = indexes_.find(key);
    if (found == indexes_.end()) {
        return add_conversation(frame, key);
    }
    if (frame.tcp) {
        const bool is_from_a = facts_->conversations[found->second].a == frame.ends.a;
        if (tcp_[found->second].begins_anew(*frame.tcp, is_from_a)) {
            return add_conversation(frame, key);
        }
    }
    return found->second;
}

void capture_reader::add_refusal(const frame_ends& ends) {
    frame_facts refused;
    refused.protocol = "tcp";
    refused.ends = ends;
    const auto found = indexes_.find(key_of(refused));
    if (found != indexes_.end()) {
        facts_->conversations[found->second].refusals++;
    }
}

void capture_reader::judge(const frame_facts& frame, size_t index, double seconds) {
    if (frame.tcp && index != none) {
        conversation& counts = facts_->conversations[index];
        tcp_[index].add(*frame.tcp, counts.a == frame.ends.a, seconds, &counts);
    }
    if (frame.refused) {
        add_refusal(*frame.refused);
    }
    if (!frame.dns.empty()) {
        questions_.add_name(frame);
    }
    if (frame.neighbour) {
        questions_.add_neighbour(*frame.neighbour);
    }
}

void capture_reader::add(const capture_record& record) {
    first_us_ = facts_->packets == 0 ? record.us : first_us_;
    const double seconds = static_cast<double>(std::max<int64_t>(record.us - first_us_, 0)) / 1e6;
    const frame_facts frame = frame_dissect(record, &fragments_);
    facts_->packets++;
    facts_->bytes += record.length;
    facts_->seconds = std::max(facts_->seconds, seconds);
    facts_->packets_by_protocol[frame.protocol]++;
    const size_t index = find(frame);
    if (index == none) {
        facts_->left_out++;
    } else {
        conversation& counted = facts_->conversations[index];
        counted.first_seconds = counted.packets == 0 ? seconds : counted.first_seconds;
        counted.last_seconds = std::max(counted.last_seconds, seconds);
        counted.packets++;
        counted.bytes += record.length;
        if (frame.tcp) {
            tcp_[index].note(*frame.tcp, counted.a == frame.ends.a);
        }
    }
    if (!views_.is_known(frame, seconds)) {
        judge(frame, index, seconds);
    }
}

void capture_reader::finish() {
    facts_->dns = questions_.take_names();
    facts_->arp = questions_.take_neighbours();
    std::ranges::stable_sort(facts_->conversations, std::ranges::greater(), &conversation::bytes);
}

void capture_reader::read(std::string_view bytes) {
    capture_records records(bytes);
    capture_record record;
    while (records.next(&record)) {
        add(record);
    }
    facts_->damage = records.damage();
    facts_->has_true_lengths = records.has_true_lengths();
    facts_->is_full = records.is_full();
    finish();
}

}  // namespace

void capture_parse(capture_facts* facts, std::string_view bytes) {
    facts->is_present = true;
    capture_reader(facts).read(bytes.substr(0, text_limit));
}

}  // namespace archiveview
