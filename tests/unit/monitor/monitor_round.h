// Rounds of a monitor that watches a fixture tree, and the text that they print.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "monitor/ehash.h"
#include "tests/unit/monitor/fixture_tree.h"

class monitor_round : public testing::Test, public watched_tree {
protected:
    static constexpr int pid = 7000000;
    static constexpr int other = 7000001;
    static constexpr int first_child = 7001000;

    void set_children(int parent, int count) {
        for (; children_ > count; children_--) {
            tree.remove(first_child + children_ - 1);
        }
        for (; children_ < count; children_++) {
            tree.add(first_child + children_, "child", parent);
        }
    }
    // The number of records.
    uint32_t known() const { return m->table->count; }

private:
    int children_ = 0;
};

inline std::string fd_line(int of, const std::string& name, int score, const std::string& delta,
                           int sockets) {
    return "pid " + std::to_string(of) + " name " + name + " fd_score " + std::to_string(score) + " [" +
           delta + "] sk=" + std::to_string(sockets) + "\n";
}

inline std::string fork_line(int of, const std::string& name, int score, const std::string& delta) {
    return "pid " + std::to_string(of) + " name " + name + " fork_score " + std::to_string(score) + " [" +
           delta + "]\n";
}

inline std::string fork_stats(int of, int count) {
    std::string number = std::to_string(count);
    return "forkstats for pid=" + std::to_string(of) + ": score=" + number + " nr_childs=" + number + "\n";
}

// The status lines of a process that is sampled for the first time.
inline std::string first_fd_stats(int of, int score, int all, int sockets, int pipes) {
    return "fdstats for pid=" + std::to_string(of) + " score=" + std::to_string(score) + ":\n" +
           history_line(0, all, sockets, pipes) + history_line(1, 0, 0, 0) + history_line(2, 0, 0, 0) +
           history_line(3, 0, 0, 0) + history_line(4, all / 4, sockets / 4, pipes / 4) +
           history_line(37, 0, 0, 0) + history_line(70, 0, 0, 0) + history_line(103, 0, 0, 0);
}

inline std::string history_lines(const std::vector<int>& counts) {
    const int labels[] = {0, 1, 2, 3, 4, 37, 70, 103};
    std::string text;
    for (size_t i = 0; i < counts.size(); i++) {
        text += history_line(labels[i], counts[i], 0, 0);
    }
    return text;
}
