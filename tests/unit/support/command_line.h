// Command lines as main gets them.
#pragma once

#include <string>
#include <utility>
#include <vector>

class command_line {
public:
    explicit command_line(std::vector<std::string> words) : words_(std::move(words)) {
        for (std::string& word : words_) {
            argv_.push_back(word.data());
        }
        argv_.push_back(nullptr);
    }
    command_line(const char* program, std::vector<std::string> words)
        : command_line((words.insert(words.begin(), program), std::move(words))) {}
    command_line(const command_line&) = delete;
    command_line& operator=(const command_line&) = delete;

    int argc() const { return static_cast<int>(words_.size()); }
    char** argv() { return argv_.data(); }

private:
    std::vector<std::string> words_;
    std::vector<char*> argv_;  // into words_
};

// Calls the main function of an applet in this process.
inline int call_applet(int (*run)(int argc, char** argv), std::vector<std::string> words) {
    command_line line(std::move(words));
    return run(line.argc(), line.argv());
}
