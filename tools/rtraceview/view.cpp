#include "tools/rtraceview/view.h"

#include "tools/rtraceview/csv.h"
#include "tools/rtraceview/json.h"
#include "tools/rtraceview/page.h"
#include "tools/rtraceview/samples.h"
#include "tools/rtraceview/text.h"

namespace {

void view_text(record_reader* reader, text_output* out) {
    text_writer writer(out);
    for (record next; reader->next(&next);) {
        writer.add(next);
    }
}

void view_samples(record_reader* reader, sample_visitor* visitor, view_result* result) {
    sample_builder builder(visitor);
    for (record next; reader->next(&next);) {
        builder.add(next);
    }
    builder.finish();
    if (builder.unfinished_files() > 0) {
        result->remarks.push_back("unfinished files, skipped: " + std::to_string(builder.unfinished_files()));
    }
    if (builder.repeated_processes() > 0) {
        result->remarks.push_back("repeated processes, skipped: " +
                                  std::to_string(builder.repeated_processes()));
    }
    if (builder.far_times() > 0) {
        result->remarks.push_back(
            "offset " + std::to_string(builder.first_far_offset()) +
            ": impossible time; records affected: " + std::to_string(builder.far_times()));
    }
    if (builder.times_back() > 0) {
        result->remarks.push_back(
            "offset " + std::to_string(builder.first_back_offset()) +
            ": the time goes back; occurrences: " + std::to_string(builder.times_back()));
    }
}

void remark_on_stream(const record_reader& reader, view_result* result) {
    result->state = reader.state();
    if (reader.unknown_records() > 0) {
        result->remarks.push_back("records of unknown types, skipped: " +
                                  std::to_string(reader.unknown_records()));
    }
    if (!reader.complaint().empty()) {
        result->remarks.push_back(reader.complaint());
    }
}

}  // namespace

view_result view_trace(text_output* out, const record_reader::byte_source& source, view_format format,
                       std::string_view title) {
    // The source may wait for a live trace: show first what has been read.
    record_reader reader([&source, out](char* to, size_t size) {
        out->flush();
        return source(to, size);
    });
    view_result result;
    page_builder page;
    if (format == view_format::text) {
        view_text(&reader, out);
    } else if (format == view_format::json) {
        json_writer writer(out);
        view_samples(&reader, &writer, &result);
    } else if (format == view_format::csv) {
        csv_writer writer(out);
        view_samples(&reader, &writer, &result);
    } else {
        view_samples(&reader, &page, &result);
    }
    remark_on_stream(reader, &result);
    if (format == view_format::html) {
        page.write(out, title, result.remarks);
    }
    out->flush();
    return result;
}
