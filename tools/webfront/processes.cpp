#include "tools/webfront/processes.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>

#include "common/small_file.h"
#include "common/unique_fd.h"
#include "tools/json/json_output.h"

namespace {

constexpr size_t stat_limit = 1024;                  // bytes; the fields that are used come early in the line
constexpr unsigned kernel_thread_flag = 0x00200000;  // PF_KTHREAD, from the kernel's sched.h
constexpr std::string_view cut_mark = "...";

template <typename Number>
bool parse_number(std::string_view text, Number& number) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

// Removes `count` fields, which single blanks separate, from the front of `*rest`. Returns the last one.
std::string_view take_field(std::string_view* rest, int count) {
    std::string_view field;
    for (int i = 0; i < count; i++) {
        size_t end = std::min(rest->find_first_of(" \n"), rest->size());
        field = rest->substr(0, end);
        rest->remove_prefix(std::min(end + 1, rest->size()));
    }
    return field;
}

// Returns up to `limit` bytes of a file; fewer when it is shorter or cannot be read.
std::string read_start(int folder, const std::string& name, size_t limit) {
    std::string bytes(limit, '\0');
    const ssize_t size = small_file_read(folder, name.c_str(), bytes.data(), limit);
    bytes.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return bytes;
}

std::vector<pid_t> list_pids(DIR* directory) {
    std::vector<pid_t> pids;
    while (const dirent* entry = readdir(directory)) {
        pid_t pid = 0;
        if (parse_number(std::string_view(entry->d_name), pid) && pid > 0) {
            pids.push_back(pid);
        }
    }
    std::ranges::sort(pids);
    return pids;
}

void write_process(json_output* json, const webfront_process& process) {
    json->begin_object();
    json->key("pid");
    json->number(int64_t{process.pid});
    json->key("name");
    json->string(process.name);
    json->key("command");
    json->string(process.command);
    json->key("state");
    json->string({&process.state, 1});
    json->key("memory_kb");
    json->number(process.memory_kb);
    json->key("kernel");
    json->boolean(process.is_kernel_thread);
    json->end_object();
}

}  // namespace

std::optional<webfront_process> webfront_parse_stat(std::string_view text, int64_t page_size) {
    // The name may contain any byte, including blanks, parentheses and newlines.
    size_t open = text.find(" (");
    size_t close = text.rfind(") ");
    webfront_process process;
    if (open == std::string_view::npos || close == std::string_view::npos || close < open + 2 ||
        !parse_number(text.substr(0, open), process.pid)) {
        return {};
    }
    process.name = text.substr(open + 2, close - open - 2);
    std::string_view rest = text.substr(close + 2);
    // proc(5) counts from the pid: the state is field 3, the flags are field 9 and the resident pages
    // field 24.
    std::string_view state = take_field(&rest, 1);
    unsigned flags = 0;
    int64_t pages = 0;
    if (state.size() != 1 || !parse_number(take_field(&rest, 9 - 3), flags) ||
        !parse_number(take_field(&rest, 24 - 9), pages)) {
        return {};
    }
    process.state = state[0];
    process.is_kernel_thread = (flags & kernel_thread_flag) != 0;
    process.memory_kb = pages * page_size / 1024;
    return process;
}

std::string webfront_parse_command(std::string_view bytes) {
    bool cut = bytes.size() >= webfront_command_limit;
    std::string command(bytes.substr(0, std::min(bytes.find_last_not_of('\0') + 1, bytes.size())));
    std::ranges::replace(command, '\0', ' ');
    return cut ? command.append(cut_mark) : command;
}

std::vector<webfront_process> webfront_read_processes(const std::string& root) {
    std::vector<webfront_process> processes;
    unique_dir directory(opendir(root.c_str()));
    if (!directory) {
        return processes;
    }
    int folder = dirfd(directory.get());
    int64_t page_size = sysconf(_SC_PAGESIZE);
    for (pid_t pid : list_pids(directory.get())) {
        std::string name = std::to_string(pid);
        auto process = webfront_parse_stat(read_start(folder, name + "/stat", stat_limit), page_size);
        if (process) {
            process->command =
                webfront_parse_command(read_start(folder, name + "/cmdline", webfront_command_limit));
            processes.push_back(std::move(*process));
        }
    }
    return processes;
}

std::string webfront_processes_json(std::span<const webfront_process> processes) {
    json_output json;
    json.begin_object();
    json.key("processes");
    json.begin_array();
    for (const webfront_process& process : processes) {
        write_process(&json, process);
    }
    json.end_array();
    json.end_object();
    json.end_line();
    return std::string(json.text());
}
