#include "tools/archiveview/findings/causes.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace archiveview {

namespace {

struct explanation {
    std::string_view cause;
    std::vector<std::string_view> consequences;
};

const std::vector<explanation>& explanations() {
    static const std::vector<explanation> table = {
        {"deadlock",
         {"process-blocked", "call-stuck", "listen-queue-full", "send-queue-stuck", "close-wait", "zombies"}},
        {"process-stopped",
         {"process-blocked", "call-stuck", "listen-queue-full", "send-queue-stuck", "close-wait", "zombies",
          "core-missing", "spinning-thread", "connect-unanswered"}},
        {"descriptor-leak", {"close-wait", "error-storm", "memory-low"}},
        {"child-runaway", {"memory-low", "cpu-busy", "zombies", "error-storm"}},
        {"memory-low", {"swap-in-use", "cpu-busy"}},
        {"spinning-thread", {"cpu-busy", "listen-queue-full", "send-queue-stuck", "close-wait"}},
        {"process-blocked",
         {"call-stuck", "core-missing", "listen-queue-full", "send-queue-stuck", "close-wait"}},
        {"zombies", {"child-runaway"}},
        {"connect-refused", {"error-storm", "polling-loop", "resets", "cpu-busy"}},
        {"listen-queue-full", {"close-wait", "call-stuck"}},
        {"connect-unanswered",
         {"error-storm", "polling-loop", "call-stuck", "retransmissions", "arp-unanswered"}},
        {"dns-unanswered",
         {"error-storm", "polling-loop", "connect-refused", "arp-unanswered", "call-stuck"}},
        {"send-queue-stuck", {"retransmissions", "call-stuck", "polling-loop"}},
        {"error-storm", {"polling-loop", "cpu-busy"}},
        {"polling-loop", {"cpu-busy"}},
    };
    return table;
}

// Positions of findings by process and id.
using positions = std::multimap<std::pair<int, std::string_view>, size_t>;

void take_over(finding* cause, const finding& consequence) {
    const std::string place = consequence.proof.empty() ? std::string() : consequence.proof.front().place;
    cause->proof.push_back({consequence.text, place});
}

// Marks the consequences of the finding at `at` as explained.
void explain(std::vector<finding>* findings, const positions& by_key, size_t at, const explanation& known,
             std::vector<bool>* is_explained) {
    finding& cause = (*findings)[at];
    for (std::string_view id : known.consequences) {
        const auto [begin, end] = by_key.equal_range({cause.pid, id});
        for (auto found = begin; found != end; ++found) {
            const finding& consequence = (*findings)[found->second];
            if (consequence.level <= cause.level && !(*is_explained)[found->second]) {
                (*is_explained)[found->second] = true;
                take_over(&cause, consequence);
            }
        }
    }
}

}  // namespace

void drop_consequences(std::vector<finding>* findings) {
    positions by_key;
    for (size_t i = 0; i < findings->size(); i++) {
        if ((*findings)[i].pid != 0) {
            by_key.emplace(std::pair((*findings)[i].pid, std::string_view((*findings)[i].id)), i);
        }
    }
    std::vector<bool> is_explained(findings->size());
    for (size_t i = 0; i < findings->size(); i++) {
        const auto known = std::ranges::find((explanations()), (*findings)[i].id, &explanation::cause);
        if ((*findings)[i].pid != 0 && !is_explained[i] && known != explanations().end()) {
            explain(findings, by_key, i, *known, &is_explained);
        }
    }
    std::vector<finding> kept;
    for (size_t i = 0; i < findings->size(); i++) {
        if (!is_explained[i]) {
            kept.push_back(std::move((*findings)[i]));
        }
    }
    *findings = std::move(kept);
}

}  // namespace archiveview
