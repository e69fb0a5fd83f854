// A trace as one HTML page with plots over time, which loads no other file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/json/json_output.h"
#include "tools/rtraceview/output.h"
#include "tools/rtraceview/sample_visitor.h"

class page_builder : public sample_visitor {
public:
    // A plot shows the lines with the highest values.
    static constexpr size_t lines_limit = 12;
    static constexpr size_t events_limit = 5000;  // further ones are counted
    static constexpr size_t event_length_limit = 300;

    void begin(int64_t time_ms, uint64_t offset) override;
    void value(const sample_field& field, double number, int64_t time_ms) override;
    void text(const sample_field& field, std::string_view text, int64_t time_ms) override;
    void end() override;

    // Writes the page. `title` names the trace; `remarks` appear above the plots.
    void write(text_output* out, std::string_view title, const std::vector<std::string>& remarks) const;

private:
    struct point {
        uint32_t sample;
        float number;
    };
    struct line {
        std::vector<point> points;
        float highest = 0;
    };
    using lines = std::map<std::string, line, std::less<>>;
    struct event {
        int64_t time_ms;
        std::string text;
    };

    std::string label_of(size_t plot, const std::string& name) const;
    std::vector<lines::const_iterator> highest_lines(size_t plot) const;
    void write_trace(text_output* out) const;
    void write_plot(json_output* json, size_t plot) const;
    void write_rows(json_output* json, const std::vector<lines::const_iterator>& shown) const;
    void write_events(json_output* json) const;

    std::vector<int64_t> times_;                             // of the samples
    std::map<size_t, lines> plots_;                          // by their index in the table of plots
    std::map<std::string, std::string, std::less<>> names_;  // of processes
    std::vector<event> events_;
    uint64_t skipped_events_ = 0;
};
