#include "tools/rtraceview/page.h"

#include <algorithm>
#include <iterator>
#include <numeric>

#include "tools/rtraceview/page_assets.h"

namespace {

// How the lines of a plot are called.
enum class naming { key, subject, process };

// Which numbers make up a plot. An empty subject or key stands for any.
struct plot_row {
    std::string_view title;
    std::string_view unit;
    std::string_view source;
    std::string_view subject;
    std::vector<std::string_view> keys;
    naming names;
    bool is_of_one;  // only numbers without a subject
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

bool belongs(const plot_row& row, const sample_place& place) {
    return row.source == place.source && (row.subject.empty() || row.subject == place.subject) &&
           (row.is_of_one || !place.subject.empty()) &&
           (row.keys.empty() || std::find(row.keys.begin(), row.keys.end(), place.key) != row.keys.end());
}

void put_escaped(std::string_view text, text_output& out) {
    for (char character : text) {
        switch (character) {
            case '<':
                out.put("&lt;");
                break;
            case '&':
                out.put("&amp;");
                break;
            case '"':
                out.put("&quot;");
                break;
            default:
                out.put(character);
        }
    }
}

// In a script element, a "<" inside a string could end the element.
void put_script_json(std::string_view json, text_output& out) {
    while (!json.empty()) {
        size_t end = std::min(json.find('<'), json.size());
        out.put(json.substr(0, end));
        json.remove_prefix(end);
        if (!json.empty()) {
            out.put("\\u003c");
            json.remove_prefix(1);
        }
    }
}

}  // namespace

void page_builder::begin(int64_t time_ms, uint64_t /*offset*/) {
    times_.push_back(time_ms);
}

void page_builder::end() {}

void page_builder::value(const sample_place& place, double number, int64_t /*time_ms*/) {
    if (!is_date(times_.back())) {
        return;  // nowhere on the axis of time
    }
    const std::vector<plot_row>& rows = plot_rows();
    for (size_t plot = 0; plot < rows.size(); plot++) {
        if (!belongs(rows[plot], place)) {
            continue;
        }
        std::string_view name = rows[plot].names == naming::key ? place.key : place.subject;
        lines& all = plots_[plot];
        auto found = all.find(name);
        line& to = found != all.end() ? found->second : all[std::string(name)];
        float short_number = static_cast<float>(number);
        to.points.push_back({static_cast<uint32_t>(times_.size() - 1), short_number});
        to.highest = std::max(to.highest, short_number);
    }
}

void page_builder::text(const sample_place& place, std::string_view text, int64_t time_ms) {
    if (place.source == "status" && place.key == "Name") {
        names_.insert_or_assign(std::string(place.subject), std::string(text.substr(0, 64)));
    }
    if (place.source != "event") {
        return;
    }
    while (!text.empty()) {
        size_t end = std::min(text.find('\n'), text.size());
        if (events_.size() < events_limit) {
            events_.push_back({time_ms, std::string(text.substr(0, std::min(end, event_length_limit)))});
        } else {
            events_left_out_++;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

std::string page_builder::label_of(size_t plot, const std::string& name) const {
    auto found = names_.find(name);
    bool is_named = plot_rows()[plot].names == naming::process && found != names_.end();
    return is_named ? found->second + " " + name : name;
}

// Those that reach highest, in this order.
std::vector<page_builder::lines::const_iterator> page_builder::chosen(size_t plot) const {
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

// A row for each sample that has any of the lines, in the order of time.
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
            bool is_there = found != shown_line->second.points.end() && found->sample == sample;
            values.push_back(is_there ? &*found : nullptr);
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
    std::vector<lines::const_iterator> shown = chosen(plot);
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
        if (is_date(each.time_ms)) {
            json->number(each.time_ms);
        } else {
            json->string(std::to_string(each.time_ms) + " ms");
        }
        json->string(each.text);
        json->end_array();
    }
}

void page_builder::write_trace(text_output& out) const {
    json_output json;
    json.begin_object();
    json.key("samples");
    json.number(uint64_t{times_.size()});
    json.key("events_left_out");
    json.number(events_left_out_);
    json.key("events");
    json.begin_array();
    write_events(&json);
    json.end_array();
    json.key("plots");
    json.begin_array();
    for (const auto& [plot, unused] : plots_) {
        write_plot(&json, plot);
        put_script_json(json.text(), out);
        json.clear();
    }
    json.end_array();
    json.end_object();
    put_script_json(json.text(), out);
}

void page_builder::write(std::string_view title, const std::vector<std::string>& remarks,
                         text_output& out) const {
    out.put(
        "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
        "<meta name=\"color-scheme\" content=\"light dark\">\n<title>");
    put_escaped(title, out);
    out.put("</title>\n<style>\n");
    out.put(page_asset_library_style());
    out.put(page_asset_style());
    out.put("</style>\n</head>\n<body>\n<h1>");
    put_escaped(title, out);
    out.put("</h1>\n<p id=\"summary\"></p>\n");
    for (const std::string& remark : remarks) {
        out.put("<p class=\"remark\">");
        put_escaped(remark, out);
        out.put("</p>\n");
    }
    out.put(
        "<div id=\"plots\"></div>\n<div id=\"events\"></div>\n"
        "<noscript><p>The plots need JavaScript.</p></noscript>\n"
        "<script type=\"application/json\" id=\"trace\">\n");
    write_trace(out);
    out.put("\n</script>\n<script>\n");
    out.put(page_asset_library());
    out.put("\n</script>\n<script>\n");
    out.put(page_asset_script());
    out.put("</script>\n</body>\n</html>\n");
}
