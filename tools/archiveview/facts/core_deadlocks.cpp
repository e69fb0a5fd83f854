#include <algorithm>
#include <map>

#include "tools/archiveview/facts/core_locks.h"

namespace archiveview {
namespace {

constexpr size_t none = SIZE_MAX;

// Threads as a graph: each waits for one other at most.
struct wait_graph {
    std::vector<size_t> next;       // the index of the thread that each waits for, or none
    std::vector<bool> is_hopeless;  // waits for a thread that has ended
    std::vector<size_t> end;        // the last thread of the chain that begins here, or none for a cycle
    std::vector<size_t> length;     // of that chain
};

wait_graph make_graph(const std::vector<futex_wait>& waits, const core_facts& facts) {
    const size_t count = facts.threads.size();
    wait_graph graph = {std::vector<size_t>(count, none), std::vector<bool>(count),
                        std::vector<size_t>(count, none), std::vector<size_t>(count, 0)};
    std::map<int, size_t> index;
    for (size_t i = 0; i < count; i++) {
        index.emplace(facts.threads[i].tid, i);
    }
    for (const futex_wait& wait : waits) {
        const core_thread& thread = facts.threads[wait.thread];
        if (wait.has_timeout) {
            continue;  // it will give up
        }
        graph.is_hopeless[wait.thread] = thread.owner_ended;
        const int other = thread.owner != 0 ? thread.owner : thread.joins;
        if (auto found = index.find(other); other != 0 && found != index.end()) {
            graph.next[wait.thread] = found->second;
        }
    }
    return graph;
}

core_deadlock deadlock_of(const std::vector<size_t>& members, bool is_cycle, const core_facts& facts) {
    core_deadlock deadlock;
    deadlock.is_cycle = is_cycle;
    for (const size_t each : members) {
        deadlock.tids.push_back(facts.threads[each].tid);
    }
    return deadlock;
}

// Follows each chain once. Adds the cycles, and notes where the other chains end.
void follow_chains(wait_graph* graph, core_facts* facts) {
    std::vector<size_t> reached_by(graph->next.size(), none);
    for (size_t start = 0; start < graph->next.size(); start++) {
        std::vector<size_t> path;
        size_t at = start;
        while (at != none && reached_by[at] == none) {
            reached_by[at] = start;
            path.push_back(at);
            at = graph->next[at];
        }
        if (at != none && reached_by[at] == start) {
            facts->deadlocks.push_back(deadlock_of({std::ranges::find(path, at), path.end()}, true, *facts));
            continue;  // these chains end in a cycle
        }
        size_t end = at != none ? graph->end[at] : path.empty() ? none : path.back();
        size_t length = at != none ? graph->length[at] : 0;
        for (auto each = path.rbegin(); each != path.rend(); ++each) {
            graph->end[*each] = end;
            graph->length[*each] = ++length;
        }
    }
}

// For each lock whose owner has ended, adds the longest chain that ends there.
void add_hopeless(const wait_graph& graph, core_facts* facts) {
    std::map<uint64_t, size_t> longest;  // by the lock: where its chain begins
    for (size_t start = 0; start < graph.next.size(); start++) {
        const size_t end = graph.end[start];
        if (end == none || !graph.is_hopeless[end]) {
            continue;
        }
        auto [found, is_new] = longest.emplace(facts->threads[end].futex, start);
        if (!is_new && graph.length[start] > graph.length[found->second]) {
            found->second = start;
        }
    }
    for (const auto& [lock, start] : longest) {
        std::vector<size_t> members;
        for (size_t at = start; at != none; at = graph.next[at]) {
            members.push_back(at);
        }
        facts->deadlocks.push_back(deadlock_of(members, false, *facts));
    }
}

}  // namespace

void core_deadlocks_find(const std::vector<futex_wait>& waits, core_facts* facts) {
    wait_graph graph = make_graph(waits, *facts);
    follow_chains(&graph, facts);
    add_hopeless(graph, facts);
}

}  // namespace archiveview
