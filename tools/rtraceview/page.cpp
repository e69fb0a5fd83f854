#include "tools/rtraceview/page.h"

#include <algorithm>
#include <iterator>
#include <numeric>

#include "tools/rtraceview/page_assets.h"

namespace {

// What the labels of a plot's lines are made from.
enum class naming { key, subject, process };

// Selects the numbers of one plot. An empty subject matches any subject; without keys, any key matches.
struct plot_row {
    std::string_view title;
    std::string_view unit;
    std::string_view source;
    std::string_view subject;
    std::vector<std::string_view> keys;
    naming names;
    bool can_be_without_subject;
};

const std::vector<plot_row>& plot_rows() {
    static const std::vector<plot_row> rows = {
        {"Memory of the system",
         "KiB",
         "meminfo",
         "",
         {"MemTotal", "MemFree", "MemAvailable", "Buffers", "Cached", "Slab", "Shmem", "AnonPages",
          "SwapFree"},
         naming::key,
         true},
        {"Memory of processes, proportional (smaps)", "KiB", "smaps", "", {"Pss"}, naming::process, false},
        {"Memory of processes, resident (smaps)", "KiB", "smaps", "", {"Rss"}, naming::process, false},
        {"Memory of processes, resident (status)", "KiB", "status", "", {"VmRSS"}, naming::process, false},
        {"Memory of all processes (smapstot)", "KiB", "smapstot", "", {}, naming::key, true},
        {"Open files", "", "filenr", "", {"allocated"}, naming::key, true},
        {"Disks, used", "KiB", "diskinfo", "", {"Used"}, naming::subject, false},
        {"Disks, available", "KiB", "diskinfo", "", {"Avail"}, naming::subject, false},
        {"Processors (iostat)", "%", "iostat", "cpu", {}, naming::key, false},
        {"Disk load (iostat)", "%", "iostat", "", {"%util"}, naming::subject, false},
        {"Processor time of processes (pidstat)", "%", "pidstat", "", {"%CPU"}, naming::subject, false},
    };
    return rows;
}

bool belongs(const plot_row& row, const sample_field& field) {
    return row.source == field.source && (row.subject.empty() || row.subject == field.subject) &&
           (row.can_be_without_subject || !field.subject.empty()) &&
           (row.keys.empty() || std::find(row.keys.begin(), row.keys.end(), field.key) != row.keys.end());
}

void write_escaped(text_output* out, std::string_view text) {
    for (char character : text) {
        switch (character) {
            case '<':
                out->write("&lt;");
                break;
            case '&':
                out->write("&amp;");
                break;
            case '"':
                out->write("&quot;");
                break;
            default:
                out->write(character);
        }
    }
}

// In a script element, a "<" inside a string could end the element.
void write_script_json(text_output* out, std::string_view json) {
    while (!json.empty()) {
        size_t end = std::min(json.find('<'), json.size());
        out->write(json.substr(0, end));
        json.remove_prefix(end);
        if (!json.empty()) {
            out->write("\\u003c");
            json.remove_prefix(1);
        }
    }
}

}  // namespace

void page_builder::begin(int64_t time_ms, uint64_t /*offset*/) {
    times_.push_back(time_ms);
}

void page_builder::end() {}

void page_builder::value(const sample_field& field, double number, int64_t /*time_ms*/) {
    if (!is_plausible_time(times_.back())) {
        return;  // not on the time axis
    }
    const std::vector<plot_row>& rows = plot_rows();
    for (size_t plot = 0; plot < rows.size(); plot++) {
        if (!belongs(rows[plot], field)) {
            continue;
        }
        std::string_view name = rows[plot].names == naming::key ? field.key : field.subject;
        lines& all = plots_[plot];
        auto found = all.find(name);
        line& to = found != all.end() ? found->second : all[std::string(name)];
        float rounded = static_cast<float>(number);
        to.points.push_back({static_cast<uint32_t>(times_.size() - 1), rounded});
        to.highest = std::max(to.highest, rounded);
    }
}

void page_builder::text(const sample_field& field, std::string_view text, int64_t time_ms) {
    if (field.source == "status" && field.key == "Name") {
        names_.insert_or_assign(std::string(field.subject), std::string(text.substr(0, 64)));
    }
    if (field.source != "event") {
        return;
    }
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        if (events_.size() < events_limit) {
            events_.push_back({time_ms, std::string(text.substr(0, std::min(end, event_length_limit)))});
        } else {
            skipped_events_++;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::string page_builder::label_of(size_t plot, const std::string& name) const {
    auto found = names_.find(name);
    bool is_named = plot_rows()[plot].names == naming::process && found != names_.end();
    return is_named ? found->second + " " + name : name;
}

// Returns the lines with the highest values, highest first.
std::vector<page_builder::lines::const_iterator> page_builder::highest_lines(size_t plot) const {
    const lines& all = plots_.at(plot);
    std::vector<lines::const_iterator> shown;
    for (auto each = all.begin(); each != all.end(); ++each) {
        shown.push_back(each);
    }
    std::stable_sort(shown.begin(), shown.end(),
                     [](auto one, auto other) { return one->second.highest > other->second.highest; });
    shown.resize(std::min(shown.size(), lines_limit));
    return shown;
}

// Writes one row for each sample that has a value of any shown line, ordered by time.
void page_builder::write_rows(json_output* json, const std::vector<lines::const_iterator>& shown) const {
    std::vector<uint32_t> order(times_.size());
    std::iota(order.begin(), order.end(), 0U);
    std::stable_sort(order.begin(), order.end(),
                     [this](uint32_t one, uint32_t other) { return times_[one] < times_[other]; });
    auto at = [](const line& of, uint32_t sample) {
        return std::lower_bound(of.points.begin(), of.points.end(), sample,
                                [](const point& one, uint32_t wanted) { return one.sample < wanted; });
    };
    for (uint32_t sample : order) {
        std::vector<const point*> values;
        for (auto shown_line : shown) {
            auto found = at(shown_line->second, sample);
            bool has_value = found != shown_line->second.points.end() && found->sample == sample;
            values.push_back(has_value ? &*found : nullptr);
        }
        if (std::all_of(values.begin(), values.end(), [](const point* value) { return !value; })) {
            continue;
        }
        json->begin_array();
        json->number(times_[sample]);
        for (const point* value : values) {
            value ? json->number(static_cast<double>(value->number)) : json->null();
        }
        json->end_array();
    }
}

void page_builder::write_plot(json_output* json, size_t plot) const {
    const plot_row& row = plot_rows()[plot];
    std::vector<lines::const_iterator> shown = highest_lines(plot);
    json->begin_object();
    json->key("title");
    json->string(row.title);
    json->key("unit");
    json->string(row.unit);
    json->key("left_out");
    json->number(uint64_t{plots_.at(plot).size() - shown.size()});
    json->key("labels");
    json->begin_array();
    for (auto each : shown) {
        json->string(label_of(plot, each->first));
    }
    json->end_array();
    json->key("rows");
    json->begin_array();
    write_rows(json, shown);
    json->end_array();
    json->end_object();
}

void page_builder::write_events(json_output* json) const {
    for (const event& each : events_) {
        json->begin_array();
        if (is_plausible_time(each.time_ms)) {
            json->number(each.time_ms);
        } else {
            json->string(std::to_string(each.time_ms) + " ms");
        }
        json->string(each.text);
        json->end_array();
    }
}

void page_builder::write_trace(text_output* out) const {
    json_output json;
    json.begin_object();
    json.key("samples");
    json.number(uint64_t{times_.size()});
    json.key("events_left_out");
    json.number(skipped_events_);
    json.key("events");
    json.begin_array();
    write_events(&json);
    json.end_array();
    json.key("plots");
    json.begin_array();
    for (const auto& [plot, unused] : plots_) {
        write_plot(&json, plot);
        write_script_json(out, json.text());
        json.clear();
    }
    json.end_array();
    json.end_object();
    write_script_json(out, json.text());
}

void page_builder::write(text_output* out, std::string_view title,
                         const std::vector<std::string>& remarks) const {
    out->write(
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"color-scheme\" content=\"light dark\">\n<title>");
    write_escaped(out, title);
    out->write("</title>\n<style>\n");
    out->write(page_asset_library_style());
    out->write(page_asset_style());
    out->write("</style>\n</head>\n<body>\n<h1>");
    write_escaped(out, title);
    out->write("</h1>\n<p id=\"summary\"></p>\n");
    for (const std::string& remark : remarks) {
        out->write("<p class=\"remark\">");
        write_escaped(out, remark);
        out->write("</p>\n");
    }
    out->write(
        "<div id=\"plots\"></div>\n<div id=\"events\"></div>\n"
        "<noscript><p>The plots need JavaScript.</p></noscript>\n"
        "<script type=\"application/json\" id=\"trace\">\n");
    write_trace(out);
    out->write("\n</script>\n<script>\n");
    out->write(page_asset_library());
    out->write("\n</script>\n<script>\n");
    out->write(page_asset_script());
    out->write("</script>\n</body>\n</html>\n");
}
