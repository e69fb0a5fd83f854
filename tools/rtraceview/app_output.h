// Output of the programs in a resource trace: its lines, and the numbers in the reports of iostat and
// pidstat.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Splits text into lines. The text comes in pieces that may end anywhere.
class line_splitter {
public:
    static constexpr size_t line_limit = 65536;  // the rest of a longer line is dropped

    // Calls `line` for each line that the piece completes.
    void add(std::string_view piece, const std::function<void(std::string_view)>& line);

private:
    std::string pending_;
};

// Receives one number of a report: its subject ("cpu", a device, a process), its column and its value.
using report_value = std::function<void(std::string_view subject, std::string_view column, double value)>;

// Parses reports of `iostat -xcdk N`. The subject is "cpu" or a device.
class iostat_reports {
public:
    void add_line(std::string_view line, const report_value& value);

private:
    enum class part { none, cpu, devices } part_ = part::none;
    std::vector<std::string> columns_;
};

// Parses reports of `pidstat N`. The subject is "COMMAND PID". Skips the averages at the end.
class pidstat_reports {
public:
    void add_line(std::string_view line, const report_value& value);

private:
    std::vector<std::string> columns_;
};
