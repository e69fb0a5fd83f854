// What the programs of a resource trace print: the reports of iostat and pidstat as numbers, whole lines of
// all.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Lines out of pieces of text that may end anywhere.
class line_splitter {
public:
    static constexpr size_t line_limit = 65536;  // what a longer line has beyond it is left out

    // Calls `line` for each line that the piece completes.
    void add(std::string_view piece, const std::function<void(std::string_view)>& line);

private:
    std::string pending_;
};

// Takes a number of a report: what it is about ("cpu", a device, a process), its column and its value.
using report_value = std::function<void(std::string_view subject, std::string_view column, double value)>;

// Reports as `iostat -xcdk N` prints them: the subject is "cpu", or the device.
class iostat_reports {
public:
    void add_line(std::string_view line, const report_value& value);

private:
    enum class part { none, cpu, devices } part_ = part::none;
    std::vector<std::string> columns_;
};

// Reports as `pidstat N` prints them: the subject is "COMMAND PID". Averages at the end are left out.
class pidstat_reports {
public:
    void add_line(std::string_view line, const report_value& value);

private:
    std::vector<std::string> columns_;
};
